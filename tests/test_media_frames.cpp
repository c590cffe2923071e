#include <gtest/gtest.h>

#include "MediaSide.h"

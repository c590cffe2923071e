// ASan defaults of every fuzz target.
//
// The system's JSON library is built without frame pointers, so ASan's fast unwinder records
// a different allocation stack for almost every allocation the parser makes, and its stack
// store (never freed) grows by tens of kilobytes per deeply nested input until the run hits
// the RSS limit, ten times slower on the way. Three frames still name the allocating caller;
// ASAN_OPTIONS=malloc_context_size=30 gives whole stacks when replaying a crash.
extern "C" const char* __asan_default_options() {
    return "malloc_context_size=3";
}

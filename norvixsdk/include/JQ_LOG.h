// Platform log. One call writes one line tagged with the module, the caller's source file
// (path without extension), function and line.
#ifndef NORVIX_JQ_LOG_H
#define NORVIX_JQ_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

// Levels: 0 most urgent .. 4 most detailed.
int JQ_LOG_Output(const char* module, int level, const char* file, const char* func, int line,
                  const char* format, ...) __attribute__((format(printf, 6, 7)));

// A line without module tag, source file, function or line.
int JQ_LOG_Format(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif

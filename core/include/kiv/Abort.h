// Fatal termination of the core runtime.
#pragma once

#include <cstddef>

namespace kiv {

// Flushes standard output, writes `message` followed by a newline to standard
// error, and ends the process abnormally (SIGABRT). Never returns.
[[noreturn]] void abort(const char* message) noexcept;

// Writes "[<file>:<line>] kivAbort: <text>" into `buffer` (at most `size`
// bytes, always terminated) and returns `buffer`. This is the one format of
// the runtime's fatal messages; `file` is the name of the source or header
// that detected the condition.
char* formatAbortMessage(char* buffer, std::size_t size, const char* file, unsigned line,
                         const char* text) noexcept;

// formatAbortMessage() then abort().
[[noreturn]] void abortAt(const char* file, unsigned line, const char* text) noexcept;

}  // namespace kiv

#include <kiv/Abort.h>

#include <cstdio>
#include <cstdlib>

namespace kiv {

void abort(const char* message) noexcept {
    std::fflush(stdout);
    std::fprintf(stderr, "%s\n", message ? message : "");
    std::fflush(stderr);
    std::abort();
}

char* formatAbortMessage(char* buffer, std::size_t size, const char* file, unsigned line,
                         const char* text) noexcept {
    if (size == 0) return buffer;
    std::snprintf(buffer, size, "[%s:%u] kivAbort: %s", file ? file : "", line, text ? text : "");
    return buffer;
}

void abortAt(const char* file, unsigned line, const char* text) noexcept {
    char buffer[1024];
    abort(formatAbortMessage(buffer, sizeof buffer, file, line, text));
}

}  // namespace kiv

// Support of the fuzz targets: an in-memory file with a path, so that the readers' zlib path (gzopen of a
// file name) runs without touching the disk on every input.
#ifndef KIVTAMBER_FUZZ_FUZZSUPPORT_H
#define KIVTAMBER_FUZZ_FUZZSUPPORT_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace kivTamber {
namespace fuzz {

// An anonymous memory file (memfd) opened once and named "/proc/self/fd/N"; set() replaces its contents.
class MemoryFile {
public:
    explicit MemoryFile(const char* name) : fd_(memfd_create(name, 0)) {
        if (fd_ < 0) {
            std::perror("memfd_create");
            std::abort();
        }
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile() { close(fd_); }

    void set(const void* data, std::size_t size) {
        if (ftruncate(fd_, 0) != 0) std::abort();
        const char* p = static_cast<const char*>(data);
        for (std::size_t done = 0; done < size;) {
            const ssize_t got = pwrite(fd_, p + done, size - done, static_cast<off_t>(done));
            if (got <= 0) std::abort();
            done += static_cast<std::size_t>(got);
        }
    }
    const std::string& path() const { return path_; }

private:
    int fd_;
    std::string path_;
};

}  // namespace fuzz
}  // namespace kivTamber

#endif  // KIVTAMBER_FUZZ_FUZZSUPPORT_H

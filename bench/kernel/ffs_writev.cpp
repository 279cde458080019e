// The baseline of scripts/bench-kernel: what a program that owns the function would do to send a
// file, with nothing of the daemon in between. Brings up the same function on the real
// FunctionFS, maps FILE, waits for one line on stdin (the host is reading by then), and writes the
// mapping to the bulk IN endpoint COUNT times with writev(), in calls as the daemon makes them
// (endpoint_write.h). Exit status 0 when every byte went out.
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../endpoint_write.h"
#include "ffs_function.h"

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s FILE COUNT\n", argv[0]);
        return 2;
    }
    const long count = std::strtol(argv[2], nullptr, 10);
    usbd::UniqueFd file(::open(argv[1], O_RDONLY | O_CLOEXEC));
    struct stat st;
    if (!file.valid() || ::fstat(file.get(), &st) != 0 || st.st_size <= 0 || count <= 0) {
        std::fprintf(stderr, "cannot use %s %s\n", argv[1], argv[2]);
        return 2;
    }
    const size_t size = size_t(st.st_size);
    void *map = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
    if (map == MAP_FAILED) {
        std::perror("mmap");
        return 1;
    }
    usbdtest::FfsFunction function;
    std::string why;
    if (!usbdtest::bringUpFunction(&function, &why)) {
        std::fprintf(stderr, "%s\n", why.c_str());
        return 1;
    }
    char line[16];
    if (!std::fgets(line, sizeof line, stdin))
        return 1;
    for (long i = 0; i < count; ++i) {
        if (!endpointwrite::writeSegments(function.ep3.get(), {{map, size}})) {
            std::fprintf(stderr, "writev() failed: %d\n", errno);
            return 1;
        }
    }
    return 0;
}

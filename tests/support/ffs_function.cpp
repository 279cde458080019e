#include "ffs_function.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "functionfs.h"
#include "paths.h"

namespace usbdtest {

namespace {

bool writeBlob(int fd, const uint8_t *data, size_t size, const char *what, std::string *why)
{
    const ssize_t written = ::write(fd, data, size);
    if (written == ssize_t(size))
        return true;
    *why = std::string("writing ") + what
           + " failed: " + (written < 0 ? std::strerror(errno) : "short write");
    return false;
}

bool openEndpoint(usbd::UniqueFd *fd, const char *path, int flags, std::string *why)
{
    fd->reset(::open(path, flags));
    if (fd->valid())
        return true;
    *why = std::string("cannot open ") + path + ": " + std::strerror(errno);
    return false;
}

std::string emuctlCommand(const std::string &args)
{
    const char *name = std::getenv("USBD_EMU_NAME");
    const char *tool = std::getenv("USBD_EMUCTL");
    if (name == nullptr)
        return "false";
    return std::string(tool ? tool : "usbd-emuctl") + " --name " + name + " " + args;
}

} // namespace

bool bringUpFunction(FfsFunction *function, std::string *why)
{
    if (!openEndpoint(&function->ep0, usbd::kFfsEp0Path, O_RDWR | O_CLOEXEC, why))
        return false;
    const auto descriptors = usbd::functionfs::descriptorsBlob();
    const auto &strings = usbd::functionfs::stringsBlob();
    if (!writeBlob(function->ep0.get(), descriptors.data(), descriptors.size(), "descriptors", why)
        || !writeBlob(function->ep0.get(), strings.data(), strings.size(), "strings", why))
        return false;
    return openEndpoint(&function->ep1, usbd::kFfsEp1Path, O_RDWR | O_CLOEXEC, why)
           && openEndpoint(&function->ep3, usbd::kFfsEp3Path, O_RDWR | O_CLOEXEC, why);
}

bool emuctl(const std::string &args)
{
    return std::system((emuctlCommand(args) + " >/dev/null").c_str()) == 0;
}

std::string emuctlOutput(const std::string &args)
{
    std::string output;
    if (FILE *pipe = ::popen(emuctlCommand(args).c_str(), "r")) {
        char chunk[4096];
        for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;)
            output.append(chunk, n);
        ::pclose(pipe);
    }
    return output;
}

std::string readFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

} // namespace usbdtest

// Where an output goes, and the temporary file it is written through.
#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace tessaline_tools {

namespace {

const char* kindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "is a directory, not a file";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "is a device, not a regular file";
    if (S_ISFIFO(mode)) return "is a pipe, not a regular file";
    if (S_ISSOCK(mode)) return "is a socket, not a regular file";
    return "is not a regular file";
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// A name of its own beside `target`: the process and a counter tell runs and threads apart. It does not
// end in a mesh or picture extension, so that a folder read as input never takes it for a frame.
std::string temporaryBeside(const std::string& target) {
    static std::atomic<unsigned> counter(0);
    const std::size_t slash = target.find_last_of('/');
    const std::string folder = slash == std::string::npos ? std::string() : target.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
    return folder + "." + name + "." + std::to_string(getpid()) + "-" + std::to_string(counter++) + ".partial";
}

}  // namespace

std::string outputTarget(const std::string& path) {
    std::string target = path;
    for (int links = 0;; ++links) {
        struct stat info;
        if (lstat(target.c_str(), &info) != 0) return target;  // a new file
        if (S_ISREG(info.st_mode)) return target;
        if (!S_ISLNK(info.st_mode)) throw std::runtime_error(path + ": " + kindOf(info.st_mode));
        if (links >= 40) throw std::runtime_error(path + ": too many levels of symbolic links");
        char next[4096];
        const ssize_t n = readlink(target.c_str(), next, sizeof(next) - 1);
        if (n < 0) throw std::runtime_error(path + ": cannot read the symbolic link (" + std::strerror(errno) + ")");
        next[n] = '\0';
        target = next[0] == '/' ? std::string(next) : folderOf(target) + "/" + next;
    }
}

void checkOutput(const std::string& path) {
    const std::string target = outputTarget(path);
    const std::string probe = temporaryBeside(target);
    const int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) throw std::runtime_error(path + ": cannot write the file (" + std::strerror(errno) + ")");
    close(fd);
    unlink(probe.c_str());
}

OutputFile::OutputFile(const std::string& path) : m_path(path), m_target(outputTarget(path)) {
    m_temporary = temporaryBeside(m_target);
    const int fd = open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (fd < 0) throw std::runtime_error(path + ": cannot write the file (" + std::strerror(errno) + ")");
    struct stat existing;
    if (stat(m_target.c_str(), &existing) == 0) fchmod(fd, existing.st_mode & 07777);
    close(fd);
}

OutputFile::~OutputFile() {
    if (!m_committed) unlink(m_temporary.c_str());
}

void OutputFile::commit() {
    // What the target became while this was written is checked again: only a regular file is replaced.
    if (outputTarget(m_target) != m_target || std::rename(m_temporary.c_str(), m_target.c_str()) != 0)
        throw std::runtime_error(m_path + ": cannot move the finished file into place (" + std::strerror(errno) + ")");
    m_committed = true;
}

}  // namespace tessaline_tools

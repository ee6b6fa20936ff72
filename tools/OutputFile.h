// Output files written whole or not at all: into a temporary file beside the target, renamed over it once
// complete. Only a regular file, new or existing, is ever replaced; a symbolic link is followed to the
// file it names; a device, pipe, socket or folder named as an output is refused before any work.
#pragma once

#include <string>

namespace tessaline_tools {

// The file that writing `path` replaces or creates: `path` itself, or where its symbolic links lead.
// Throws std::runtime_error naming `path` when that is a device, a pipe, a socket or a folder.
std::string outputTarget(const std::string& path);

// Throws now, before any work, when `path` could not be written: see outputTarget; its folder missing or
// not writable. Leaves nothing behind.
void checkOutput(const std::string& path);

// A temporary file beside the target of `path`, for a writer to fill; commit() puts it in the target's
// place (keeping an existing file's permissions), and without it the temporary file is removed.
class OutputFile {
public:
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    const std::string& temporaryPath() const { return m_temporary; }
    // Renames the temporary file into place. Throws std::runtime_error naming the output.
    void commit();

private:
    std::string m_path, m_target, m_temporary;
    bool m_committed = false;
};

}  // namespace tessaline_tools

// ScratchDir: a new directory that a test may fill, removed with its content; and whole-file reading and
// writing.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace support {

/// Whole content of a file; throws where it cannot be opened.
inline std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// Creates or replaces a file's content.
inline void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

/// Permission bits of a file.
inline unsigned modeOf(const std::string& path)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0)
        throw std::runtime_error("cannot stat " + path);
    return status.st_mode & 07777U;
}

/// Names inside a directory.
inline std::set<std::string> namesIn(const std::string& directory)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

/// The same in order; empty when there is no such directory.
inline std::vector<std::string> listing(const std::string& directory)
{
    if (!std::filesystem::is_directory(directory))
        return {};
    const std::set<std::string> names = namesIn(directory);
    return {names.begin(), names.end()};
}

/// Empties a directory; makes one that is not there.
inline void emptyDirectory(const std::string& path)
{
    std::filesystem::create_directories(path);
    for (const auto& entry : std::filesystem::directory_iterator(path))
        std::filesystem::remove_all(entry.path());
}

/// Puts a symbolic link to `source` in place of whatever file is at `path`.
inline void putLink(const std::string& source, const std::string& path)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::remove(path);
    std::filesystem::create_symlink(source, path);
}

/// A directory under /tmp for one test.
class ScratchDir {
public:
    ScratchDir()
    {
        char name[] = "/tmp/zorvo-test-XXXXXX";
        if (::mkdtemp(name) == nullptr)
            throw std::runtime_error("cannot make a scratch directory");
        path_ = name;
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    ~ScratchDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }
    /// Path of `name` inside; nothing is created.
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::set<std::string> names() const { return namesIn(path_); }

private:
    std::string path_;
};

} // namespace support

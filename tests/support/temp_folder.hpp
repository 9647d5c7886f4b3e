#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace testing_support {

/** A folder of its own below the system's folder for temporary files, gone with this object. */
class TempFolder
{
public:
    TempFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "vantora-test-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        path_ = name;
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::filesystem::path& path() const { return path_; }

    /** Absolute path of a file in the folder. */
    std::string file(const std::string& name) const { return (path_ / name).string(); }

    /** Writes a file, making the folders above it. */
    void write(const std::string& name, const std::string& contents) const
    {
        const auto target = path_ / name;
        std::filesystem::create_directories(target.parent_path());
        std::ofstream(target, std::ios::binary) << contents;
    }

    std::string read(const std::string& name) const
    {
        std::ifstream stream(path_ / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    bool has(const std::string& name) const { return std::filesystem::exists(path_ / name); }

private:
    std::filesystem::path path_;
};

} // namespace testing_support

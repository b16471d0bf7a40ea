// What the fuzz targets share: a claim that must hold, and a folder that the code under test must not leave.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <span>
#include <string>
#include <string_view>

namespace zel {

/// Ends the process where a claim does not hold; the fuzzer takes that for a crash and shows the line.
inline void require(bool holds)
{
    if (!holds)
        std::abort();
}

/// A temporary folder with the folder `inside`, where the code under test may write, and with what is beside
/// that.
class Sandbox
{
public:
    Sandbox()
    {
        std::string name = std::filesystem::temp_directory_path() / "fuzz-XXXXXX";
        require(::mkdtemp(name.data()) != nullptr);
        m_root = name;
        std::filesystem::create_directory(path("beside"));
        write(path("canary"), "canary");
        write(path("beside/canary"), "canary");
    }
    ~Sandbox() { std::filesystem::remove_all(m_root); }
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    std::filesystem::path path(std::string_view name) const { return m_root / name; }
    std::filesystem::path inside() const { return m_root / "inside"; }

    static void write(const std::filesystem::path &file, std::string_view bytes)
    {
        std::ofstream(file, std::ios::binary) << bytes;
    }

    static std::string read(const std::filesystem::path &file)
    {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    /// Everything beside the folder `inside`: a file's bytes, a link's target.
    std::map<std::string, std::string> surroundings() const
    {
        namespace fs = std::filesystem;
        std::map<std::string, std::string> items;
        for (auto item = fs::recursive_directory_iterator(m_root); item != fs::end(item); ++item) {
            if (item->path() == inside())
                item.disable_recursion_pending();
            else if (item->is_symlink())
                items[item->path()] = fs::read_symlink(item->path());
            else
                items[item->path()] = item->is_directory() ? "/" : read(item->path());
        }
        return items;
    }

private:
    std::filesystem::path m_root;
};

inline std::string_view textOf(const unsigned char *bytes, std::size_t size)
{
    return {reinterpret_cast<const char *>(bytes), size};
}

} // namespace zel

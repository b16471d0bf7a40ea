// Which file of an old bundle a new file resembles most, whatever their names.
#pragma once

#include <QByteArrayView>
#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

namespace zel {

/// What is remembered of a file's content: the hashes of those of its windows of 32 bytes whose hash is low
/// enough, which of equal content are the same ones, wherever it stands (U. Manber, "Finding similar files in
/// a large file system", 1994). Some 500 of a file, whatever its size.
struct FileSketch {
    int level = 0; ///< one window in 2^level is taken
    std::vector<std::uint32_t> samples; ///< in ascending order, each once

    static FileSketch of(QByteArrayView content);
};

struct SketchedFile {
    QString path;
    qint64 size = 0;
    FileSketch sketch;
};

class SimilarFiles
{
public:
    explicit SimilarFiles(std::vector<SketchedFile> files);

    /// The path of the file that shares most with `wanted`; nothing where none shares an eighth of it. Of
    /// those that share about as much, the one at the same path is taken, else the one whose name is most
    /// alike. Linear in the samples of `wanted`.
    std::optional<QString> mostLike(const SketchedFile &wanted) const;

private:
    struct Sample {
        std::uint32_t hash;
        std::uint32_t file;
    };

    std::vector<SketchedFile> m_files;
    std::vector<Sample> m_samples; // by their hashes
};

} // namespace zel

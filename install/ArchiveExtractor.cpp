// Archives are unpacked by another process, `zel-unpack`: whatever a hostile archive does to a reader of zip
// files, it does to a small program that can be killed, and not to the host. The archive goes through a pipe
// in chunks, so its name never reaches the tool, and its size never this process's memory. A tool that stops
// making progress is ended by `ChildProcess`; one that ends well but left part of the archive unread has
// failed, too.
#include "ArchiveExtractor.h"

#include "base/SystemCalls.h"
#include "common/DDLog.h"
#include "platform/ChildProcess.h"
#include "platform/FileTree.h"

#include <cerrno>
#include <fcntl.h>
#include <QByteArrayList>
#include <QFile>
#include <QFileInfo>
#include <system_error>
#include <vector>

namespace zel {

namespace {

void logSystemError(const char *text)
{
    systemLog(QLatin1String(text) + QString::fromStdString(std::generic_category().message(errno)));
}

class Feed
{
public:
    explicit Feed(const QString &file)
        : m_file(::open(QFile::encodeName(file).constData(), O_RDONLY | O_CLOEXEC))
        , m_chunk(262144)
    {
        if (!m_file)
            logSystemError("Failed to read data from archive with error ");
    }

    // Returns the number of bytes that went into the pipe. Errors show up as a wrong number or a bad status
    // of the tool, and are only logged here.
    qint64 run(ChildProcess &tool, qint64 size)
    {
        qint64 total = 0;
        bool written = true;
        do {
            const size_t length = readChunk();
            if (length == 0)
                break;
            written = tool.write(m_chunk.data(), length);
            if (written)
                total += qint64(length);
            else
                logSystemError("Failed to write data to pipe with error ");
        } while (written && total < size);
        close(tool);
        return total;
    }

private:
    // A failed read counts as the end of the archive.
    size_t readChunk()
    {
        if (!m_file)
            return 0;
        const ssize_t length = readSome(m_file.get(), m_chunk.data(), m_chunk.size());
        if (length < 0)
            logSystemError("Failed to read data from archive with error ");
        return size_t(qMax<ssize_t>(length, 0));
    }

    void close(ChildProcess &tool)
    {
        if (!tool.closeInput())
            logSystemError("Failed to close pipe with error ");
        if (!m_file.close())
            logSystemError("Failed to close archive input with error ");
    }

    FileDescriptor m_file;
    std::vector<char> m_chunk;
};

// Nothing when all of the archive has gone into the tool and the tool was content.
ZELError runTool(const QString &file, const QString &directory, const ExtractOptions &options)
{
    const QStringList arguments{QStringLiteral("-x"), QStringLiteral("-k"), QStringLiteral("-"), directory};
    const qint64 size = QFileInfo(file).size();
    ChildProcess process(options.patience);
    if (!process.launch(options.tool, arguments))
        return ZELError::withMessage(QStringLiteral("Extraction failed. Error launching"));
    const std::stop_callback stopping(options.stop, [&] { process.kill(); });
    const qint64 total = Feed(file).run(process, size);
    const int status = process.wait();
    if (process.isOutOfPatience())
        systemLog(QStringLiteral("archive tool was ended: it made no progress"));
    else if (status != 0 && options.stop.stop_requested())
        systemLog(QStringLiteral("archive tool was ended: extraction was stopped"));
    if (status != 0) {
        systemLog(QStringLiteral("bad termination status"));
        return ZELError::withMessage(
            QStringLiteral("Extraction failed. Invalid termination status - %1").arg(status));
    }
    if (total != size)
        return ZELError::withMessage(
            QStringLiteral("Extraction failed. %1 of %2 bytes").arg(total).arg(size));
    return {};
}

// Adds the names on the way to the first bundle. Only folders themselves count, as only those are opened: not
// what a link points at. Deeper than bundles and archives are, nothing is looked for.
bool seekBundle(FolderListing folder, QByteArrayList &way)
{
    while (const char *name = folder ? folder.next() : nullptr) {
        FolderListing inner(folder.folder(), name);
        if (!inner)
            continue;
        way.append(name);
        // A name that is nothing but the ending is no bundle's.
        const bool isBundle = way.last().size() > 4 && way.last().endsWith(".app");
        if (isBundle || (way.size() <= MaxFolderDepth && seekBundle(std::move(inner), way)))
            return true;
        way.removeLast();
    }
    return false;
}

} // namespace

QString findBundle(const QString &directory)
{
    const QByteArray root = QFile::encodeName(directory);
    QByteArrayList way;
    FileDescriptor top(::open(root.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!seekBundle(FolderListing(std::move(top)), way))
        return {};
    const QString slash = directory.endsWith(u'/') ? QString() : QStringLiteral("/");
    return directory + slash + QFile::decodeName(way.join('/'));
}

QString archiveTool()
{
    const QString name = QStringLiteral("/zel-unpack");
    const QString binary = QFileInfo(QFile::decodeName(ownBinary().c_str())).canonicalFilePath();
    if (!binary.isEmpty()) {
        const QString folder = QFileInfo(binary).path();
        for (const QString &place : {folder, folder + QStringLiteral("/../libexec")}) {
            if (QFileInfo(place + name).isExecutable())
                return QFileInfo(place + name).absoluteFilePath();
        }
    }
    return QStringLiteral(ZEL_LIBEXEC_DIR) + name;
}

void extractArchive(const QString &file, const QString &directory, const ZELExtractCompletion &completion,
                    const ExtractOptions &options)
{
    const ZELError failure = runTool(file, directory, options);
    const QString bundle = failure ? QString() : findBundle(directory);
    if (!completion)
        return;
    if (failure)
        completion(false, {}, failure);
    else if (bundle.isNull())
        // Deliberately a success: the flows judge by the path.
        completion(true, {},
                   ZELError::withMessage(QStringLiteral("Extraction failed. Unable to find payload")));
    else
        completion(true, bundle, {});
}

} // namespace zel

// Facts that the update server chooses by. They are sent as they are or left out, never guessed: a wrong one
// would bring the wrong update. What firmware says is text of strangers, too, so it is bounded and must be
// ASCII.
#include "SystemFacts.h"

#include <QFile>
#include <QSysInfo>

#include <algorithm>
#include <array>

namespace {

constexpr qint64 MaxModelSize = 127;

QString modelFromFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray text = file.read(MaxModelSize);
    const QByteArray model = QByteArray(text.constData()).trimmed(); // ends at the first NUL
    const bool ascii = std::all_of(model.begin(), model.end(), [](char c) { return quint8(c) < 0x80; });
    return ascii && !model.isEmpty() ? QString::fromLatin1(model) : QString();
}

} // namespace

namespace zel {

QString architectureWord()
{
#if defined(__x86_64__) || defined(__i386__)
    return QStringLiteral("x86");
#elif defined(__aarch64__) || defined(__arm__)
    return QStringLiteral("arm");
#elif defined(ZEL_ARCHITECTURE_WORD)
    return QStringLiteral(ZEL_ARCHITECTURE_WORD);
#else
#error "configure with -DZEL_ARCHITECTURE_WORD=<the word that the update server knows this processor by>"
#endif
}

SystemVersion systemVersion()
{
    return parseSystemVersion(QSysInfo::kernelVersion());
}

SystemVersion parseSystemVersion(QStringView release)
{
    std::array<qint64, 3> numbers{};
    for (qint64 &number : numbers) {
        const auto isDigit = [](QChar c) { return c >= u'0' && c <= u'9'; };
        const qsizetype length = std::find_if_not(release.begin(), release.end(), isDigit) - release.begin();
        number = release.first(length).toLongLong();
        if (length == 0 || length == release.size() || release[length] != u'.')
            break;
        release = release.sliced(length + 1);
    }
    return {numbers[0], numbers[1], numbers[2]};
}

QString modelIdentifier()
{
    return modelFromFiles(
        {QStringLiteral("/sys/class/dmi/id/product_name"), QStringLiteral("/proc/device-tree/model")});
}

QString modelFromFiles(const QStringList &files)
{
    for (const QString &file : files) {
        const QString model = modelFromFile(file);
        if (!model.isNull())
            return model;
    }
    return {};
}

} // namespace zel

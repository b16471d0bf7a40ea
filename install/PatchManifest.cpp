// A manifest is read in two ways. Format 1 takes what it finds: a number may be a text, what is missing is 0
// or empty, and a command that makes no sense fails when its turn comes. Publishers have relied on that.
// Format 2 is judged before anything is performed, because a value that is not understood must never pass for
// one that is not there: a "sha256" of the wrong type would mean that nothing is checked.
//
// The first command of format 2 has an empty path. It is there for readers that know format 1 alone, which
// fail at it, before they wrote anything that format 2 means in another way.
#include "PatchManifest.h"

#include "common/WireValues.h"
#include "platform/BoundedJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <array>

namespace zel {

namespace {

constexpr std::array Words = {
    QLatin1String(),         QLatin1String("delete-symlink"), QLatin1String("create-symlink"),
    QLatin1String("delete"), QLatin1String("adddirectory"),   QLatin1String("add"),
    QLatin1String("patch"),  QLatin1String("copy"),           QLatin1String("mode"),
};

constexpr size_t WordsOfFormat1 = size_t(PatchAction::Patch) + 1;
constexpr qint64 NewestFormat = 2;
constexpr std::array KnownRequirements = {QLatin1String("move-deltas"), QLatin1String("moved-files"),
                                          QLatin1String("modes")};
constexpr qint64 MostValues = 8 * PatchManifest::CommandLimit; // a command of format 1 has eight at most

ZELError problem(const QString &message)
{
    return ZELError::withMessage(message);
}

PatchAction actionOf(const QJsonArray &words, int format)
{
    for (size_t action = 1; action < (format == 1 ? WordsOfFormat1 : Words.size()); ++action) {
        if (words.contains(QJsonValue(Words[action])))
            return PatchAction(action);
    }
    return PatchAction::None;
}

ZELError readFormat(const QJsonObject &manifest, int &format)
{
    const QJsonValue value = manifest[QLatin1String("format")];
    if (value.isUndefined())
        return {};
    const qint64 number = value.isDouble() ? value.toInteger() : 0;
    if (number < 1)
        return problem(QStringLiteral("its \"format\" is no number of a format"));
    if (number > NewestFormat)
        return problem(QStringLiteral("it is of format %1, and %2 is the newest that is known here")
                           .arg(number)
                           .arg(NewestFormat));
    format = int(number);
    return {};
}

bool isKnownWord(const QString &word)
{
    return std::ranges::find(KnownRequirements, word) != KnownRequirements.end();
}

ZELError readRequirements(const QJsonObject &manifest, QStringList &requirements)
{
    const QJsonValue value = manifest[QLatin1String("requires")];
    if (!value.isUndefined() && !value.isArray())
        return problem(QStringLiteral("its \"requires\" is no array"));
    for (const QJsonValue word : value.toArray()) {
        const QString text = word.toString();
        if (!isKnownWord(text))
            return problem(QStringLiteral("it requires \"%1\", which is not known here").arg(text.left(100)));
        requirements.append(text);
    }
    return {};
}

ZELError judgeCount(qint64 count)
{
    return count <= PatchManifest::CommandLimit
        ? ZELError()
        : problem(QStringLiteral("it has more than the %1 commands that a patch may have")
                      .arg(PatchManifest::CommandLimit));
}

// What is a number may be a list of them from format 2 on. None where the two do not fit together.
std::vector<PatchSlice> slicesFrom(const QJsonObject &object)
{
    const QJsonValue position = object[QLatin1String("position")];
    const QJsonValue length = object[QLatin1String("length")];
    if (!position.isArray() && !length.isArray())
        return {{integerValue(position.toVariant()), integerValue(length.toVariant())}};
    const QJsonArray positions = position.toArray();
    const QJsonArray lengths = length.toArray();
    std::vector<PatchSlice> slices;
    if (positions.size() != lengths.size() || positions.size() > PatchManifest::SliceLimit)
        return slices;
    for (qsizetype i = 0; i < positions.size(); ++i)
        slices.push_back({positions[i].toInteger(-1), lengths[i].toInteger(-1)});
    return slices;
}

PatchCommand commandFrom(const QJsonObject &object, int format)
{
    PatchCommand command;
    command.action = actionOf(object[QLatin1String("actions")].toArray(), format);
    command.path = object[QLatin1String("path")].toString();
    command.symlink = object[QLatin1String("symlink")].toString();
    if (command.action == PatchAction::Add || command.action == PatchAction::Patch)
        command.slices = slicesFrom(object);
    if (const QJsonValue hash = object[QLatin1String("hash")]; hash.isString())
        command.hash = hash.toString();
    return command;
}

bool isSHA256(QStringView text)
{
    return text.size() == 64 && std::ranges::all_of(text, [](QChar digit) {
               return (digit >= u'0' && digit <= u'9') || (digit >= u'a' && digit <= u'f');
           });
}

// The keys of format 2. Gives the name of the first that is not as it has to be; null when all are.
class NewKeys
{
public:
    explicit NewKeys(const QJsonObject &object)
        : m_object(object)
    {
    }

    const char *read(PatchCommand &command) const
    {
        const bool fromOld = command.action == PatchAction::Patch || command.action == PatchAction::Copy;
        if (m_object.contains(QLatin1String("hash")) && !command.hash)
            return "hash";
        if (command.slices.empty()
            && (command.action == PatchAction::Add || command.action == PatchAction::Patch))
            return "position";
        if (!readFrom(command))
            return "from";
        if (!readMode(command))
            return "mode";
        if (!readSHA256(command, fromOld))
            return "sha256";
        return !fromOld || readSize(command) ? nullptr : "size";
    }

private:
    bool readFrom(PatchCommand &command) const
    {
        const QJsonValue value = m_object[QLatin1String("from")];
        const bool absent = value.isUndefined() && command.action != PatchAction::Copy;
        command.from = absent ? command.path : value.toString();
        return absent || !command.from.isEmpty();
    }

    bool readMode(PatchCommand &command) const
    {
        const QJsonValue value = m_object[QLatin1String("mode")];
        if (value.isUndefined())
            return command.action != PatchAction::Mode;
        const qint64 mode = value.isDouble() ? value.toInteger(-1) : -1;
        command.mode = int(mode & 0777);
        return mode >= 0;
    }

    bool readSHA256(PatchCommand &command, bool needed) const
    {
        const QJsonValue value = m_object[QLatin1String("sha256")];
        if (value.isUndefined())
            return !needed;
        command.sha256 = value.toString();
        return isSHA256(*command.sha256);
    }

    bool readSize(PatchCommand &command) const
    {
        const QJsonValue value = m_object[QLatin1String("size")];
        command.size = value.isDouble() ? value.toInteger(-1) : -1;
        return *command.size >= 0
            && *command.size <= (command.action == PatchAction::Patch ? PatchManifest::DeltaFileLimit
                                                                      : PatchManifest::FileLimit);
    }

    const QJsonObject &m_object;
};

ZELError readCommands(const QJsonArray &values, int format, std::vector<PatchCommand> &commands)
{
    commands.reserve(size_t(values.size()));
    for (const QJsonValue value : values) {
        const QJsonObject object = value.toObject();
        commands.push_back(commandFrom(object, format));
        const char *const wrong = format == 1 ? nullptr : NewKeys(object).read(commands.back());
        if (wrong)
            return problem(QStringLiteral("the \"%1\" of its command for \"%2\" is missing or makes no sense")
                               .arg(QLatin1String(wrong), commands.back().path.left(1000)));
    }
    return {};
}

qint64 namesIn(const QString &path)
{
    return path.count(u'/') + 1;
}

ZELError removeGuard(std::vector<PatchCommand> &commands)
{
    if (commands.empty() || !commands.front().path.isEmpty())
        return problem(
            QStringLiteral("its first command has a path, so that older readers would perform it"));
    commands.erase(commands.begin());
    return {};
}

} // namespace

QLatin1String wordOf(PatchAction action)
{
    return Words[size_t(action)];
}

bool buildsFile(PatchAction action)
{
    return action == PatchAction::Add || action == PatchAction::Patch || action == PatchAction::Copy;
}

bool PatchManifest::isKnown(qint64 format, const QStringList &requirements)
{
    return format >= 1 && format <= NewestFormat && std::ranges::all_of(requirements, isKnownWord);
}

ZELError PatchManifest::read(const QByteArray &json, PatchManifest &result)
{
    result = {};
    QJsonDocument document;
    if (const ZELError error = parseJson(json, MostValues, document))
        return error;
    const QJsonObject manifest = document.object();
    if (const ZELError error = readFormat(manifest, result.format))
        return error;
    if (const ZELError error = readRequirements(manifest, result.requirements))
        return error;
    const QJsonArray values = manifest[QLatin1String("commands")].toArray();
    if (const ZELError error = judgeCount(values.size()))
        return error;
    if (const ZELError error = readCommands(values, result.format, result.commands))
        return error;
    if (const ZELError error = judge(result.commands))
        return error;
    return result.format == 1 ? ZELError() : removeGuard(result.commands);
}

ZELError PatchManifest::judge(const std::vector<PatchCommand> &commands)
{
    if (const ZELError error = judgeCount(qint64(commands.size())))
        return error;
    qint64 names = 0;
    for (const PatchCommand &command : commands)
        names += namesIn(command.path) + (command.from.isEmpty() ? 0 : namesIn(command.from));
    return names <= NameLimit
        ? ZELError()
        : problem(
            QStringLiteral("its paths have more than the %1 names that a patch may have").arg(NameLimit));
}

} // namespace zel

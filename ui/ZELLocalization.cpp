// One look-up serves the updater's pages and the host. A table that were installed in the application, as
// Qt's own translations are, would be asked for every text of the host's as well, and could only be installed
// where there is an application object. So each table is a QTranslator that is only asked, never installed.
//
// Invariant: a table is immutable once it is in `TextTables`, and found under its bundle and name in the
// language that was in use when it was first asked for; `setLanguage` drops them all. The mutex covers every
// look-up: they are short.
#include "ZELLocalization.h"

#include "Texts.h"

#include <QDir>
#include <QHash>
#include <QLocale>
#include <QTranslator>

#include <memory>
#include <mutex>
#include <vector>

// The linker drops a resource that nothing refers to from a static library; the macro refuses to stand in a
// namespace.
static void keepTables()
{
    Q_INIT_RESOURCE(ZELUpdaterTexts);
}

namespace zel {

namespace {

constexpr char OwnTable[] = "ZELUpdater";
constexpr char OwnBundle[] = ":/ZELUpdater/texts";

// The languages that a bundle has `table` in, as their files name them.
QStringList languagesOf(const QString &table, const QString &bundle)
{
    const QString prefix = table + '_';
    QStringList languages;
    for (const QString &file : QDir(bundle).entryList({"*.qm"}, QDir::Files, QDir::Name)) {
        if (file.startsWith(prefix))
            languages.append(file.sliced(prefix.size()).chopped(3));
    }
    return languages;
}

// How well a table suits a reader: 0 when it is in another language.
int suitability(const QLocale &table, const QLocale &reader)
{
    if (table.language() != reader.language())
        return 0;
    return 1 + 2 * int(table.script() == reader.script()) + int(table.territory() == reader.territory());
}

// The language of `available` nearest to the first of `wanted` that has any; null when none has.
QString nearestLanguage(const QStringList &wanted, const QStringList &available)
{
    for (const QString &reader : wanted) {
        QString nearest;
        int best = 0;
        for (const QString &language : available) {
            const int suits = suitability(QLocale(language), QLocale(reader));
            if (suits > best) {
                best = suits;
                nearest = language;
            }
        }
        if (best > 0)
            return nearest;
    }
    return {};
}

// One table in the language in use, with English behind it.
class TextTable
{
public:
    TextTable(const QString &name, const QString &bundle, const QStringList &wanted)
        : m_name(name.toUtf8())
        , m_language(nearestLanguage(wanted, languagesOf(name, bundle)))
    {
        for (const QString &language : {m_language, QStringLiteral("en")}) {
            auto translator = std::make_unique<QTranslator>();
            translator->moveToThread(nullptr); // it may outlive the thread that happened to look first
            if (!language.isNull() && translator->load(bundle + '/' + name + '_' + language + ".qm"))
                m_translators.push_back(std::move(translator));
        }
    }

    QString language() const { return m_language; }

    QString text(const QString &key) const
    {
        const QByteArray source = key.toUtf8();
        for (const auto &translator : m_translators) {
            const QString text = translator->translate(m_name.constData(), source.constData());
            if (!text.isEmpty())
                return text;
        }
        return key;
    }

private:
    QByteArray m_name;
    QString m_language;
    std::vector<std::unique_ptr<QTranslator>> m_translators;
};

// The tables that were asked for, and the language that they are in.
class TextTables
{
public:
    static TextTables &shared()
    {
        static TextTables tables;
        return tables;
    }

    QString text(const QString &key, const QString &name, const QString &bundle)
    {
        const std::lock_guard lock(m_mutex);
        return table(name, bundle).text(key);
    }

    QString ownLanguage()
    {
        const std::lock_guard lock(m_mutex);
        return table(OwnTable, OwnBundle).language();
    }

    void setLanguage(const QString &language)
    {
        const std::lock_guard lock(m_mutex);
        m_language = language;
        m_tables.clear();
    }

private:
    TextTables() { keepTables(); }

    const TextTable &table(const QString &name, const QString &bundle)
    {
        auto &table = m_tables[{bundle, name}];
        if (!table)
            table = std::make_shared<TextTable>(
                name, bundle, m_language.isEmpty() ? QLocale().uiLanguages() : QStringList(m_language));
        return *table;
    }

    std::mutex m_mutex;
    QString m_language;
    QHash<std::pair<QString, QString>, std::shared_ptr<TextTable>> m_tables;
};

} // namespace

QString localized(const char *key)
{
    return TextTables::shared().text(QString::fromUtf8(key), OwnTable, OwnBundle);
}

Qt::LayoutDirection textDirection()
{
    const QString language = TextTables::shared().ownLanguage();
    return language.isNull() ? Qt::LeftToRight : QLocale(language).textDirection();
}

void setLanguage(const QString &language)
{
    TextTables::shared().setLanguage(language);
}

} // namespace zel

QString ZELLocalizedStringFromTableInBundle(const QString &key, const QString &table, const QString &bundle,
                                            const QString &)
{
    return zel::TextTables::shared().text(key, table, bundle.isEmpty() ? QString(zel::OwnBundle) : bundle);
}

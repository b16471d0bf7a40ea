#include "support/Table.h"
#include "ui/Texts.h"
#include "ui/ZELLocalization.h"

#include <QCoreApplication>
#include <QTranslator>

#include <thread>

using zel::localized;

namespace {

// Each without the "Updater." that it begins with.
const QStringList Keys =
    QString("Checking for Updates|Cancel|Downloading|Connecting|%@ completed|Preparing update|Error|"
            "An error occurred while updating.|Retry|Up To Date|No updates are available.|Done|Completed|"
            "Updates were successfully installed.|Install|Skip|Version %1 is available, you have %2.")
        .split('|');

// The tables that were compiled in, each from a file of ui/translations.
QStringList languages()
{
    QStringList languages = QDir(":/ZELUpdater/texts").entryList({"ZELUpdater_*.qm"});
    for (QString &language : languages)
        language = language.section('.', 0, 0).sliced(qstrlen("ZELUpdater_"));
    return languages;
}

} // namespace

class tst_Localization : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { localized("Updater.Cancel"); } // makes the tables known
    void cleanup() { zel::setLanguage({}); }

    void tablesAreComplete()
    {
        QStringList faults;
        QVERIFY(languages().contains("en"));
        for (const QString &language : languages()) {
            QTranslator table;
            if (!table.load(":/ZELUpdater/texts/ZELUpdater_" + language + ".qm"))
                faults << language + ": no table";
            for (const QString &key : Keys) {
                const QString text = table.translate("ZELUpdater", qPrintable("Updater." + key));
                if (text.isEmpty())
                    faults << language + ": no text for \"" + key + '"';
                else if (text.count("%@") != key.count("%@") || text.count('%') != key.count('%'))
                    faults << language + ": other placeholders in \"" + text + "\" than in \"" + key + '"';
                else if (text != text.trimmed() || text.startsWith("Updater."))
                    faults << language + ": \"" + text + "\" is no text to show";
            }
        }
        QVERIFY2(faults.isEmpty(), qPrintable('\n' + faults.join('\n')));
    }

    void languageFallBacks_data()
    {
        const Table<QString, QString, Qt::LayoutDirection> row; // the language, its word for "Skip"
        const Qt::LayoutDirection leftToRight = Qt::LeftToRight;
        row("hyphens", "de-Latn-AT", "Überspringen", leftToRight);
        row("country without a table", "pt_PT", "Pular", leftToRight);
        row("traditional by country", "zh_TW", "略過", leftToRight);
        row("traditional, another country", "zh-HK", "略過", leftToRight);
        row("script decides over country", "zh_Hans_TW", "跳过", leftToRight);
        row("simplified by default", "zh", "跳过", leftToRight);
        row("right to left", "he_IL", "דילוג", Qt::RightToLeft);
        row("right to left without a table", "fa_IR", "Skip", leftToRight);
        row("no language at all", "C", "Skip", leftToRight);
        row("nonsense", "../../x_%1", "Skip", leftToRight);
    }

    void languageFallBacks()
    {
        const auto [language, skip, direction] = Table<QString, QString, Qt::LayoutDirection>::current();
        zel::setLanguage(language);
        QCOMPARE(localized("Updater.Skip"), skip);
        QCOMPARE(zel::textDirection(), direction);
    }

    void languageOfTheUser()
    {
        QLocale::setDefault(QLocale("fr_CA"));
        zel::setLanguage({});
        QCOMPARE(localized("Updater.Cancel"), "Annuler");
        QLocale::setDefault(QLocale::system());
    }

    void keyWhenNothingIsFound()
    {
        zel::setLanguage("de");
        for (const QString key : {"Updater.No such text", "", "Überspringen"})
            QCOMPARE(ZELLocalizedStringFromTableInBundle(key, "ZELUpdater", {}, {}), key);
        const QString cancel = "Updater.Cancel";
        QCOMPARE(ZELLocalizedStringFromTableInBundle(cancel, "Other", {}, {}), cancel);
        QCOMPARE(ZELLocalizedStringFromTableInBundle(cancel, "ZELUpdater", "/nowhere", {}), cancel);
    }

    void bundleOnDisk()
    {
        QTemporaryDir bundle;
        QVERIFY(QFile::copy(":/ZELUpdater/texts/ZELUpdater_tr.qm", bundle.filePath("ZELUpdater_de.qm")));
        QVERIFY(QFile::copy(":/ZELUpdater/texts/ZELUpdater_it.qm", bundle.filePath("ZELUpdater_en.qm")));
        const auto cancel = [&](const char *language) {
            zel::setLanguage(language);
            return ZELLocalizedStringFromTableInBundle("Updater.Cancel", "ZELUpdater", bundle.path(),
                                                       "A button");
        };
        QCOMPARE(cancel("de_CH"), "İptal");
        QCOMPARE(cancel("ja"), "Annulla");
    }

    void hostsTextsAreApart()
    {
        zel::setLanguage("de");
        QCOMPARE(localized("Updater.Cancel"), "Abbrechen");
        QCOMPARE(QCoreApplication::translate("ZELUpdater", "Updater.Cancel"), "Updater.Cancel");
    }

    void languageChangesWhileOthersRead()
    {
        std::vector<std::jthread> readers;
        for (int i = 0; i < 4; ++i) {
            readers.emplace_back([] {
                for (int n = 0; n < 200; ++n)
                    localized("Updater.Skip");
            });
        }
        for (int n = 0; n < 20; ++n)
            zel::setLanguage(n % 2 ? "de" : "fr");
        readers.clear();
        QCOMPARE(localized("Updater.Skip"), "Überspringen");
    }
};

QTEST_GUILESS_MAIN(tst_Localization)
#include "tst_Localization.moc"

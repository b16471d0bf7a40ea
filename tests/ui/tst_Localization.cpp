#include "ui/Texts.h"
#include "ui/ZELLocalization.h"

#include <QCoreApplication>
#include <QTranslator>
#include <QtTest>

#include <thread>

using zel::localized;

namespace {

const QStringList keys{"Updater.Checking for Updates",
                       "Updater.Cancel",
                       "Updater.Downloading",
                       "Updater.Connecting",
                       "Updater.%@ completed",
                       "Updater.Preparing update",
                       "Updater.Error",
                       "Updater.An error occurred while updating.",
                       "Updater.Retry",
                       "Updater.Up To Date",
                       "Updater.No updates are available.",
                       "Updater.Done",
                       "Updater.Completed",
                       "Updater.Updates were successfully installed.",
                       "Updater.Install",
                       "Updater.Skip",
                       "Updater.Version %1 is available, you have %2."};

/// The tables that were compiled in, each from a file of ui/translations.
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
            for (const QString &key : keys) {
                const QString text = table.translate("ZELUpdater", key.toUtf8().constData());
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

    void englishIsTheKey()
    {
        zel::setLanguage("en");
        for (const QString &key : keys)
            QCOMPARE(localized(qPrintable(key)), key.mid(qstrlen("Updater.")));
    }

    void languageFallBacks_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("skip");
        QTest::addColumn<Qt::LayoutDirection>("direction");

        const auto row = [](const char *name, const char *language, const char *skip,
                            Qt::LayoutDirection direction = Qt::LeftToRight) {
            QTest::newRow(name) << language << skip << direction;
        };
        row("other country", "de_AT", "Überspringen");
        row("hyphens", "de-Latn-AT", "Überspringen");
        row("country of the table", "pt_BR", "Pular");
        row("country without a table", "pt_PT", "Pular");
        row("language alone", "pt", "Pular");
        row("traditional by script", "zh_Hant", "略過");
        row("traditional by country", "zh_TW", "略過");
        row("traditional, another country", "zh-HK", "略過");
        row("script decides over country", "zh_Hans_TW", "跳过");
        row("simplified by default", "zh", "跳过");
        row("right to left", "he_IL", "דילוג", Qt::RightToLeft);
        row("right to left without a table", "fa_IR", "Skip");
        row("no language at all", "C", "Skip");
        row("nonsense", "../../x_%1", "Skip");
    }

    void languageFallBacks()
    {
        QFETCH(QString, language);
        QFETCH(Qt::LayoutDirection, direction);
        zel::setLanguage(language);
        QTEST(localized("Updater.Skip"), "skip");
        QCOMPARE(zel::textDirection(), direction);
    }

    void languageOfTheUser()
    {
        QLocale::setDefault(QLocale("fr_CA"));
        zel::setLanguage({});
        QCOMPARE(localized("Updater.Cancel"), "Annuler");
        QLocale::setDefault(QLocale::system());
    }

    void keyWhenNothingIsFound_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("table");
        QTest::addColumn<QString>("bundle");
        const auto row = [](const char *name, const char *key, const char *table,
                            const QString &bundle = {}) { QTest::newRow(name) << key << table << bundle; };
        row("key", "Updater.No such text", "ZELUpdater");
        row("empty key", "", "ZELUpdater");
        row("no ASCII", "Überspringen", "ZELUpdater");
        row("table", "Updater.Cancel", "Other");
        row("bundle", "Updater.Cancel", "ZELUpdater", "/nowhere");
    }

    void keyWhenNothingIsFound()
    {
        QFETCH(QString, key);
        QFETCH(QString, table);
        QFETCH(QString, bundle);
        zel::setLanguage("de");
        QCOMPARE(ZELLocalizedStringFromTableInBundle(key, table, bundle, {}), key);
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

#include "base/SafeText.h"
#include "support/Table.h"

class tst_SafeText : public QObject
{
    Q_OBJECT
private slots:
    // What is replaced is written as a "?" in the expected text.
    void texts_data()
    {
        const Table<QByteArray, QString> row;
        row("words of many scripts", "Größe 版本 नमस्ते 🙂 می‌خواهم",
            "Größe 版本 नमस्ते 🙂 می‌خواهم");
        row("controls", QByteArray("a\0b\tc\nd\re\x1b[2Jf\x7fg", 16), "a?b?c?d?e?[2Jf?g");
        row("controls above U+007F", "a\u0080b\u009bc\u009fd\u00a0e", "a?b?c?d\u00a0e");
        row("line separators", "a\u2028b\u2029c", "a?b?c");
        row("marks of direction",
            "\u200e\u200f\u061c|\u202a\u202b\u202c\u202d\u202e|\u2066\u2067\u2068\u2069", "???|?????|????");
        row("their neighbours", "\u200d\u2010\u2027\u202f\u2065\u206a",
            "\u200d\u2010\u2027\u202f\u2065\u206a");
        row("no UTF-8", "a\xff\xfe\x80z", "a???z");
        row("cut short", "a\xe2\x82", "a??");
        row("cut short before a letter", "\xf0\x9f\x99z", "???z");
        row("overlong", "\xc0\xaf|\xe0\x80\xaf|\xf0\x80\x80\xaf", "??|???|????");
        row("surrogates", "\xed\xa0\x80\xed\xbf\xbf", "??????");
        row("beyond the last character", "\xf4\x90\x80\x80\xf5\x80\x80\x80", "????????");
    }

    void texts()
    {
        auto [text, shown] = Table<QByteArray, QString>::current();
        const std::string safe = zel::safeText({text.constData(), size_t(text.size())});
        QCOMPARE(safe, shown.replace(u'?', QChar::ReplacementCharacter).toStdString());
    }

    void longTextsAreCutBetweenCharacters()
    {
        QCOMPARE(zel::safeText("äöü", 3), std::string("äöü"));
        QCOMPARE(zel::safeText("äöü\n", 3), std::string("äöü…"));
        QCOMPARE(zel::safeText("äöü", 0), std::string("…"));
    }
};

QTEST_GUILESS_MAIN(tst_SafeText)
#include "tst_SafeText.moc"

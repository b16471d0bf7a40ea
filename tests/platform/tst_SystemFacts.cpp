#include "platform/SystemFacts.h"
#include "support/Case.h"
#include "support/TemporaryTree.h"

class tst_SystemFacts : public QObject
{
    Q_OBJECT
private slots:
    void kernelReleases()
    {
        const std::pair<QString, QList<qint64>> cases[] = {
            {"6.1.0-13-amd64", {6, 1, 0}},
            {"5.15.167.4-custom", {5, 15, 167}},
            {"6.1-rc3", {6, 1, 0}},
            {"7", {7, 0, 0}},
            {"7-1", {7, 0, 0}},
            {"linux-6.1", {0, 0, 0}},
            {"-6.1", {0, 0, 0}},
            {"99999999999999999999.2.3", {0, 2, 3}},
            {"", {0, 0, 0}},
        };
        for (const auto &[release, expected] : cases) {
            const Case current(release);
            const auto [major, minor, patch] = zel::parseSystemVersion(release);
            QCOMPARE((QList<qint64>{major, minor, patch}), expected);
        }
    }

    void models()
    {
        const QByteArray missing;
        const QByteArray umlaut("M\xc3\xb6");
        const std::tuple<const char *, QByteArrayList, QString> cases[] = {
            {"firmware", {"Model 20\n", "Board"}, "Model 20"},
            {"device tree", {missing, QByteArray("Board B\0", 8)}, "Board B"},
            {"behind a NUL", {QByteArray("Board\0junk", 10)}, "Board"},
            {"blank", {" \n", "Board"}, "Board"},
            {"not ASCII", {umlaut, "Board"}, "Board"},
            {"long", {QByteArray(200, 'x')}, QString(127, u'x')},
            {"none", {missing, "\n"}, QString()},
        };
        for (const auto &[name, files, expected] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            QStringList paths;
            for (qsizetype i = 0; i < files.size(); ++i) {
                paths.append(tree.path(QString::number(i)));
                if (!files[i].isNull())
                    tree.write(QString::number(i), files[i]);
            }
            const QString model = zel::modelFromFiles(paths);
            QCOMPARE(model, expected);
            QCOMPARE(model.isNull(), expected.isNull());
        }
    }
};

QTEST_GUILESS_MAIN(tst_SystemFacts)
#include "tst_SystemFacts.moc"

#include "Scenarios.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

const QString Tool = ZELUPDATER;

// Ends the program when the stock cannot be made: nothing is wrong with the code under test then.
QByteArray mustRun(const QStringList &command)
{
    QProcess process;
    process.start(command.first(), command.mid(1));
    if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0)
        qFatal("%s: %s", qPrintable(command.join(u' ')), process.readAllStandardError().constData());
    return process.readAllStandardOutput();
}

QByteArray contents(const QString &file)
{
    QFile in(file);
    return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
}

void write(const QString &file, const QByteArray &bytes, mode_t mode = 0644)
{
    QDir().mkpath(QFileInfo(file).path());
    QFile out(file);
    if (!out.open(QIODevice::WriteOnly) || out.write(bytes) != bytes.size())
        qFatal("cannot write %s", qPrintable(file));
    out.close();
    ::chmod(QFile::encodeName(file).constData(), mode);
}

QString differing(const char *what, const Tree &expected, const Tree &found)
{
    const std::string difference = firstDifference(expected, found);
    return difference.empty() ? QString()
                              : QString("%1 is not what it should be: %2").arg(what, difference.c_str());
}

// Which of the two a tree is: nothing is wrong with either.
QString oneOf(const char *what, const Tree &one, const Tree &other, const Tree &found)
{
    return found == one || found == other ? QString() : differing(what, one, found);
}

// The one JSON object on standard output; empty when there is none or half of one.
QJsonObject told(const QByteArray &out)
{
    return QJsonDocument::fromJson(out).object();
}

bool tellsSuccess(const QJsonObject &value)
{
    return !value.isEmpty() && !value.contains("error")
        && !(value.contains("path") && value["path"].isNull());
}

// A failure may be told by the exit status alone: it may be the output that failed.
QString contradiction(const ToolRun &run)
{
    if (run.status != 0 && run.status != 1)
        return QString("exit status %1").arg(run.status);
    if ((run.status == 0) != tellsSuccess(told(run.out)))
        return QString("exit status %1 beside '%2'").arg(run.status).arg(QString(run.out.trimmed()));
    return {};
}

// Patches do not bring modes along.
Tree withoutModes(Tree tree)
{
    for (auto &[name, item] : tree) {
        if (item.starts_with("file"))
            item.erase(0, item.find('\n'));
    }
    return tree;
}

bool isSeal(const std::string &name)
{
    return name.ends_with("/CodeResources") || name.ends_with("/CodeSignature");
}

// A bundle's tree but for what a seal is made of; its files' names alone stay of that when they are asked
// for.
Tree withoutSeal(Tree tree, bool keepNames)
{
    for (auto item = tree.begin(); item != tree.end();) {
        if (isSeal(item->first) && keepNames)
            item->second.clear();
        if (isSeal(item->first) && !keepNames)
            item = tree.erase(item);
        else
            ++item;
    }
    return tree;
}

// A release folder but for what is hidden: a lock, and scratch that could not be removed.
// Without the logs that a server of the folder was sent in other scenarios.
Tree served(Tree tree)
{
    std::erase_if(
        tree, [](const auto &item) { return item.first.starts_with('.') || item.first.starts_with("logs"); });
    return tree;
}

QString nothingWrong(const Workplace &)
{
    return {};
}

} // namespace

Stock::Stock()
{
    makeBundles();
    makeReleases();
    addUpdate("update-patch", "releases");
    addUpdate("update-archive", "archive-only");
    addUpdate("update-wrong-result", "wrong-result");
    addRelease();
    addRefresh();
    addMakePatch();
    for (const char *state : {"unsealed", "altered", "sealed"})
        addSign(state);
    addSwap("swap", {}, false, true);
    addSwap("swap-leftovers", {}, true, true);
    addSwap("swap-without-exchange", {}, true, false);
    struct stat here, memory;
    if (::stat(qPrintable(m_folder.path()), &here) == 0 && ::stat("/dev/shm", &memory) == 0
        && here.st_dev != memory.st_dev)
        addSwap("swap-across", "/dev/shm", false, true);
    else
        std::puts("swap-across is left out: TMPDIR and /dev/shm are one file system");
}

Stock::~Stock()
{
    for (const auto &server : m_servers) {
        server->kill();
        server->waitForFinished();
    }
}

const Scenario *Stock::find(const QString &name) const
{
    const auto at = std::ranges::find(m_scenarios, name, &Scenario::name);
    return at == m_scenarios.end() ? nullptr : &*at;
}

void Stock::makeBundle(const QString &name, int build) const
{
    const QString contentsFolder = path(name) + "/Contents/";
    const QByteArray number = QByteArray::number(build);
    write(contentsFolder + "Info.plist",
          "<plist version=\"1.0\"><dict><key>CFBundleVersion</key><string>" + number
              + "</string><key>CFBundleShortVersionString</key><string>1.0</string></dict></plist>");
    QByteArray program = contents(Tool).first(80'000);
    for (qsizetype at = build; at < program.size(); at += 997)
        program[at] = char(build);
    write(contentsFolder + "MacOS/example", program, 0755);
    QByteArray manual;
    for (int line = 0; line < 1000; ++line)
        manual += "Line " + QByteArray::number(line)
            + (line % 100 == 0 ? " of build " + number : QByteArray()) + '\n';
    write(contentsFolder + "Resources/manual.txt", manual);
    write(contentsFolder + "Resources/of-" + number + ".txt", "only in build " + number);
    fs::create_symlink("of-" + number.toStdString() + ".txt",
                       (contentsFolder + "Resources/current").toStdString());
}

void Stock::makeBundles() const
{
    mustRun({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
             "-subj", "/CN=maker", "-keyout", path("key"), "-out", path("cert")});
    const auto sign = [this](const QString &bundle) {
        mustRun({Tool, "sign", path(bundle), "--key", path("key"), "--cert", path("cert")});
    };
    for (const int build : {100, 101}) {
        makeBundle(QString("%1/Example.app").arg(build), build);
        sign(QString("%1/Example.app").arg(build));
    }
    makeBundle("unsealed", 100);
    for (const char *sealed : {"sealed", "altered"})
        copyTree(path("100/Example.app").toStdString(), path(sealed).toStdString());
    write(path("altered/Contents/Resources/manual.txt"), "altered");
    write(path("leftover/Contents/half"), "of an earlier attempt");
}

void Stock::makeReleases() const
{
    mustRun({Tool, "release", path("100/Example.app"), path("before")});
    copyTree(path("before").toStdString(), path("releases").toStdString());
    mustRun({Tool, "release", path("101/Example.app"), path("releases")});
    mustRun({Tool, "release", path("101/Example.app"), path("archive-only")});

    copyTree(path("releases").toStdString(), path("wrong-result").toStdString());
    copyTree(path("101").toStdString(), path("other").toStdString());
    write(path("other/Example.app/Contents/Resources/manual.txt"), "altered after sealing");
    const QString patch = path("wrong-result/Example-100-to-101.zelpatch");
    const auto hash = [&patch] { return mustRun({Tool, "md5", patch}).trimmed(); };
    const QByteArray before = hash();
    mustRun({Tool, "make-patch", path("100/Example.app"), path("other/Example.app"), patch});
    const QString feed = path("wrong-result/releases.json");
    write(feed, contents(feed).replace(before, hash()));
    mustRun({Tool, "make-patch", path("100/Example.app"), path("101/Example.app"), path("patch")});
}

QString Stock::serve(const QString &releases)
{
    auto server = std::make_unique<QProcess>();
    server->start(Tool, {"serve", path(releases), "--port", "0", "--json"});
    while (!server->canReadLine() && server->waitForReadyRead(-1)) { }
    const QString url = told(server->readLine())["url"].toString();
    if (url.isEmpty())
        qFatal("the update server does not start");
    m_servers.push_back(std::move(server));
    return url;
}

void Stock::addUpdate(const QString &name, const QString &releases)
{
    const auto rightResult = [wanted = withoutModes(tree("101/Example.app"))](const Workplace &,
                                                                              const ToolRun &run) {
        const QString built = told(run.out)["path"].toString();
        return differing("the new bundle", wanted, withoutModes(treeOf(built.toStdString())));
    };
    m_scenarios.push_back({.name = name,
                           .command = {Tool, "update", "--json", "--url", serve(releases), "--path",
                                       "{}/100/Example.app", "--staging", "{}/staging"},
                           .given = {{"100", "100"}},
                           .untouched = {"100"},
                           .afterSuccess = rightResult,
                           .afterFailure = nothingWrong,
                           .afterKill = nothingWrong,
                           .afterNext = rightResult});
}

// Whatever happens, the feed is the one before or the one after, and all that it names is there.
void Stock::addRelease()
{
    const auto sound = [before = served(tree("before")),
                        after = served(tree("releases"))](const Workplace &place) {
        const Tree found = served(place.tree("releases"));
        const Tree &wanted =
            found.contains("releases.json") && found.at("releases.json") == after.at("releases.json")
            ? after
            : before;
        Tree named;
        for (const auto &[name, item] : found) {
            if (wanted.contains(name))
                named[name] = item;
        }
        return differing("the release folder", wanted, named);
    };
    const auto released = [after = served(tree("releases"))](const Workplace &place, const ToolRun &) {
        return differing("the release folder", after, served(place.tree("releases")));
    };
    const auto releasedAtLast = [after = tree("releases")](const Workplace &place, const ToolRun &next) {
        const Tree found = place.tree("releases");
        if (!found.contains("releases.json") || found.at("releases.json") != after.at("releases.json"))
            return "the next release does not work: " + QString(next.err);
        for (const auto &[name, item] : found) {
            if (!after.contains(name))
                return "left behind for good: " + QString::fromStdString(name);
        }
        return QString();
    };
    m_scenarios.push_back({.name = "release",
                           .command = {Tool, "release", "--json", "{}/101/Example.app", "{}/releases"},
                           .given = {{"101", "101"}, {"releases", "before"}},
                           .untouched = {"101"},
                           .afterSuccess = released,
                           .afterFailure = sound,
                           .afterKill = sound,
                           .afterNext = [sound, releasedAtLast](const Workplace &place, const ToolRun &next) {
                               const QString wrong = sound(place);
                               return wrong.isEmpty() ? releasedAtLast(place, next) : wrong;
                           }});
}

// Whatever happens, all records are signed or none, and clients find what they name.
void Stock::addRefresh()
{
    const auto isWhole = [before = served(tree("releases"))](const Workplace &place) {
        Tree found = served(place.tree("releases"));
        const QJsonArray feed =
            QJsonDocument::fromJson(contents(place.path("releases/releases.json"))).array();
        const auto isSigned = [](const QJsonValue &record) { return record.toObject().contains("signed"); };
        const auto count = std::count_if(feed.begin(), feed.end(), isSigned);
        if (feed.size() != 2 || count == 1)
            return QString("the feed is half signed, or none");
        if (count == 2)
            found["releases.json"] = before.at("releases.json");
        return differing("the release folder", before, found);
    };
    const auto isSigned = [isWhole](const Workplace &place, const ToolRun &) {
        const bool there = contents(place.path("releases/releases.json")).contains("signed");
        return there ? isWhole(place) : QString("nothing is signed");
    };
    m_scenarios.push_back({.name = "refresh",
                           .command = {Tool, "refresh", "--json", "{}/releases", "--sign-unsigned", "100,101",
                                       "--key", path("key"), "--cert", path("cert")},
                           .given = {{"releases", "releases"}},
                           .afterSuccess = isSigned,
                           .afterFailure = isWhole,
                           .afterKill = isWhole,
                           .afterNext = isSigned});
}

void Stock::addMakePatch()
{
    const auto rightPatch = [wanted = tree("patch")](const Workplace &place, const ToolRun &) {
        return differing("the patch", wanted, place.tree("patch"));
    };
    m_scenarios.push_back(
        {.name = "make-patch",
         .command = {Tool, "make-patch", "--json", "{}/100/Example.app", "{}/101/Example.app", "{}/patch"},
         .given = {{"100", "100"}, {"101", "101"}},
         .untouched = {"100", "101"},
         .afterSuccess = rightPatch,
         .afterFailure = nothingWrong,
         .afterKill = nothingWrong,
         .afterNext = rightPatch});
}

void Stock::addSign(const QString &state)
{
    const auto unharmed = [wanted = withoutSeal(tree(state), false)](const Workplace &place) {
        Tree found = withoutSeal(place.tree("Example.app"), false);
        std::erase_if(found, [&](const auto &item) { return !wanted.contains(item.first); });
        return differing("the bundle", wanted, found);
    };
    Tree names = withoutSeal(tree("sealed"), true);
    for (auto &[name, item] : names) {
        const Tree own = tree(state);
        if (const auto at = own.find(name); at != own.end() && !isSeal(name))
            item = at->second;
    }
    const auto isSealed = [names](const Workplace &place, const ToolRun &run) {
        const QString wrong =
            differing("the sealed bundle", names, withoutSeal(place.tree("Example.app"), true));
        if (!wrong.isEmpty())
            return wrong;
        if (run.status == 0
            && runPlainly({Tool, "verify", place.path("Example.app")}, place.path("scratch")).status != 0)
            return QString("the seal is not valid");
        return run.status == 0 ? QString() : "the next sign fails: " + QString(run.err);
    };
    m_scenarios.push_back(
        {.name = "sign-" + state,
         .command = {Tool, "sign", "--json", "{}/Example.app", "--key", path("key"), "--cert", path("cert")},
         .given = {{"Example.app", state}},
         .afterSuccess = isSealed,
         .afterFailure = unharmed,
         .afterKill = unharmed,
         .afterNext = isSealed});
}

void Stock::addSwap(const QString &name, const QString &newFolder, bool leftovers, bool exchange)
{
    const Tree before = tree("100/Example.app");
    const Tree after = tree("101/Example.app");
    const auto swapped = [before, after](const Workplace &place, const ToolRun &) {
        const QString wrong = differing("the installed bundle", after, place.tree("Example.app"));
        return wrong.isEmpty() ? differing("the previous bundle", before, place.tree(".Example.app.previous"))
                               : wrong;
    };
    const auto asBefore = [before, after](const Workplace &place) {
        const QString wrong = differing("the installed bundle", before, place.tree("Example.app"));
        return wrong.isEmpty() ? differing("the new bundle", after, place.tree("new/Example.app")) : wrong;
    };
    const auto whole = [before, after, exchange](const Workplace &place) {
        const Tree installed = place.tree("Example.app");
        if (exchange || !installed.empty())
            return oneOf("the installed bundle", before, after, installed);
        return oneOf("what is left of the bundles", before, after, place.tree(".Example.app.previous"));
    };
    const auto swappedAtLast = [after](const Workplace &place, const ToolRun &next) {
        if (next.status != 0)
            return "the next exchange fails: " + QString(next.err);
        return differing("the installed bundle", after, place.tree("Example.app"));
    };
    QMap<QString, QString> given{{"new/Example.app", "101/Example.app"}, {"Example.app", "100/Example.app"}};
    if (leftovers)
        given.insert({{".Example.app.new", "leftover"}, {".Example.app.previous", "leftover"}});
    m_scenarios.push_back(
        {.name = name,
         .command = {ZEL_SWAP, "{}/new/Example.app", "{}/Example.app"},
         .given = given,
         .tellsJson = false,
         .standing = exchange ? QStringList() : QStringList{"swap-bundles:renameat2:1+:EINVAL"},
         .newFolder = newFolder,
         .renewed = {"new/Example.app"},
         .afterSuccess = swapped,
         .afterFailure = asBefore,
         .afterKill = whole,
         .afterNext = swappedAtLast});
}

void Stock::furnish(const Scenario &scenario, const QString &name, const Workplace &place) const
{
    copyTree(path(scenario.given[name]).toStdString(), place.path(name).toStdString());
}

namespace {

QString judgeRun(const Scenario &scenario, const Workplace &place, const ToolRun &run)
{
    if (!run.inTime)
        return "it does not end";
    if (!run.signalled.isEmpty())
        return "a signal ended " + run.signalled.join(" and ");
    if (run.isKilled())
        return scenario.afterKill(place);
    const QString wrong = scenario.tellsJson ? contradiction(run) : QString();
    if (!wrong.isEmpty())
        return wrong;
    return run.status == 0 ? scenario.afterSuccess(place, run) : scenario.afterFailure(place);
}

QStringList commandIn(const Scenario &scenario, const Workplace &place)
{
    QStringList command = scenario.command;
    return command.replaceInStrings("{}", place.path("."));
}

} // namespace

QString judge(const Stock &stock, const Scenario &scenario, const QStringList &faults, const QString &folder,
              ToolRun &seen)
{
    const Workplace place(folder);
    std::unique_ptr<QTemporaryDir> elsewhere;
    if (!scenario.newFolder.isEmpty()) {
        elsewhere = std::make_unique<QTemporaryDir>(scenario.newFolder + "/faults-XXXXXX");
        fs::create_directory_symlink(elsewhere->path().toStdString(), place.path("new").toStdString());
    }
    for (const QString &name : scenario.given.keys())
        stock.furnish(scenario, name, place);
    std::map<QString, Tree> before;
    for (const QString &name : scenario.untouched)
        before[name] = place.tree(name);

    const QStringList command = commandIn(scenario, place);
    seen = runWithFaults(command, place.path("scratch"), scenario.standing + faults);
    QString wrong = judgeRun(scenario, place, seen);
    for (const auto &[name, tree] : before) {
        if (wrong.isEmpty())
            wrong = differing(qPrintable(name), tree, place.tree(name));
    }
    if (!wrong.isEmpty())
        return wrong;
    for (const QString &name : scenario.renewed) {
        if (place.tree(name).empty())
            stock.furnish(scenario, name, place);
    }
    wrong = scenario.afterNext(place, runPlainly(command, place.path("scratch")));
    return wrong.isEmpty() ? wrong : "then, without a fault: " + wrong;
}

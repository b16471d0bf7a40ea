// What is done while calls fail, and what must hold afterwards.
#pragma once

#include "Runs.h"
#include "Tree.h"

#include <QProcess>
#include <QTemporaryDir>

#include <functional>
#include <memory>
#include <vector>

/// A folder for one run, with fresh copies of all that the run works on.
class Workplace
{
public:
    explicit Workplace(const QString &folder)
        : m_folder(folder.toStdString())
    {
    }

    QString path(const QString &name) const
    {
        return QString::fromStdString((m_folder / name.toStdString()).string());
    }
    Tree tree(const QString &name) const { return treeOf(m_folder / name.toStdString()); }

private:
    std::filesystem::path m_folder;
};

/// Names are relative to the place.
struct Scenario {
    QString name;
    QStringList command; ///< {} stands for the place
    QMap<QString, QString> given; ///< what is in the place at first: its name there and in the stock
    QStringList untouched = {}; ///< what must be the same after any run
    bool tellsJson = true;
    QStringList standing = {}; ///< faults of the system that the scenario is about
    QString newFolder = {}; ///< where the place's folder "new" really lies, when that is elsewhere
    QStringList renewed = {}; ///< what is put there again, if it is gone, before the normal run that follows

    /// Each returns what is wrong, or nothing: after a run that told success, after one that failed, after
    /// one that was killed, after a normal one that followed.
    std::function<QString(const Workplace &, const ToolRun &)> afterSuccess;
    std::function<QString(const Workplace &)> afterFailure;
    std::function<QString(const Workplace &)> afterKill;
    std::function<QString(const Workplace &, const ToolRun &)> afterNext;
};

/// Bundles, keys and release folders that the scenarios start from, a server for each of the folders, and the
/// scenarios.
class Stock
{
public:
    Stock();
    ~Stock();
    Stock(const Stock &) = delete;
    Stock &operator=(const Stock &) = delete;

    const std::vector<Scenario> &scenarios() const { return m_scenarios; }
    const Scenario *find(const QString &name) const;

    /// Puts a thing of those that the scenario starts with in its place.
    void furnish(const Scenario &scenario, const QString &name, const Workplace &place) const;

private:
    QString path(const QString &name) const { return m_folder.filePath(name); }
    Tree tree(const QString &name) const { return treeOf(path(name).toStdString()); }
    void makeBundle(const QString &name, int build) const;
    void makeBundles() const;
    void makeReleases() const;
    QString serve(const QString &releases);
    void addUpdate(const QString &name, const QString &releases);
    void addRelease();
    void addRefresh();
    void addMakePatch();
    void addSign(const QString &state);
    void addSwap(const QString &name, const QString &newFolder, bool leftovers, bool exchange);

    QTemporaryDir m_folder;
    std::vector<std::unique_ptr<QProcess>> m_servers;
    std::vector<Scenario> m_scenarios;
};

/// Runs a scenario with faults in an empty folder and judges it; returns what is wrong, or nothing. `seen`
/// receives the run. Any thread.
QString judge(const Stock &stock, const Scenario &scenario, const QStringList &faults, const QString &folder,
              ToolRun &seen);

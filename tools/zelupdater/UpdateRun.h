// A whole update without a window: check, download, install, each step told in a line.
#pragma once

#include "common/HostConfig.h"
#include "install/UpdateInstaller.h"
#include "publish/Interrupt.h"

#include <QString>

class Arguments;

/// What a check result offers, in words: "build 101 (version 1.1), as a patch from build 100".
QString offerText(const zel::CheckResult &result);

/// That a check had no answer, with the reason or the way to it; `text` is the status's.
QString noAnswerText(const QString &text, const Arguments &arguments);

class UpdateRun
{
public:
    /// `config` is what a host would have said. Of the arguments, "staging" is read.
    UpdateRun(const zel::HostConfig &config, const Arguments &arguments);

    /// Runs the update in an event loop and returns the exit status.
    int exec();

private:
    void checked(qint64 status, const QVariantMap &result);
    void progressed(qint64 received, qint64 expected);
    void uploadLog(const QVariantList &log);
    void installed(qint64 status, const QString &path);
    void end(int exitStatus);

    const zel::HostConfig m_config;
    const Arguments &m_arguments;
    std::optional<Leftover>
        m_unfinished; // a staging folder of the run's own, until the bundle in it is ready
    std::shared_ptr<zel::UpdateInstaller> m_installer;
    bool m_startedWithPatch = false;
    bool m_toldFullArchive = false;
    int m_uploads = 0; // running log uploads; the tool waits for them
    std::optional<int> m_exitStatus;
};

// A small application that keeps itself up to date.
#pragma once

#include <QMainWindow>
#include <QVariantMap>

/// The main window, and all that a host does for its updates.
class HostWindow : public QMainWindow
{
    Q_OBJECT
public:
    /// `bundle` is the bundle that this program runs from, `url` the address that checks go to.
    HostWindow(const QString &bundle, const QString &url);

    /// The menu's Check for Updates…
    void checkForUpdates();

    /// Asks without showing anything unless something is found.
    void checkInBackground();

private:
    void found(const QVariantMap &result);
    void chosen(qint64 choice);
    void downloaded(qint64 status, const QString &newBundle);
    void installed();
    void dismissed();
    void relaunch();

    const QString m_bundle;
    bool m_isReplaced = false; // the bundle is the new one already, this program still the old one
    bool m_isDownloading = false;
    int m_attempt = 0; // tells an answer that is still wanted from one that came after Cancel
};

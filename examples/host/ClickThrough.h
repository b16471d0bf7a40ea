// Stands for a user, for demonstrations without a display.
#pragma once

#include "HostWindow.h"

#include <QTimer>

/// Clicks its way through an update, and quits once the newest build runs. Each page is saved as a picture.
class ClickThrough : public QObject
{
    Q_OBJECT
public:
    static void start(HostWindow &window, const QString &folder);

private:
    ClickThrough(HostWindow &window, const QString &folder);
    void look();
    void save(const QString &name, QWidget &widget);

    HostWindow &m_window;
    const QString m_folder;
    QWidget *m_seen = nullptr; // the page that was acted on last
    QTimer m_timer;
};

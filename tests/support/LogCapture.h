// Collects what is logged while it lives.
#pragma once

#include "common/DDLog.h"

#include <QCoreApplication>
#include <QMutex>
#include <QStringList>
#include <QtGlobal>
#include <QThread>

class LogCapture
{
public:
    LogCapture()
    {
        s_previous = qInstallMessageHandler(handle);
        QLoggingCategory::setFilterRules(QStringLiteral("zel.*=true"));
    }

    ~LogCapture()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("zel.*=false"));
        DDLog::flushLog();
        qInstallMessageHandler(s_previous);
        s_lines.clear();
        s_mainThreadCategories.clear();
    }

    /// The messages of one kind in one category, in order.
    QStringList lines(const char *category, QtMsgType type = QtInfoMsg) const
    {
        DDLog::flushLog();
        const QMutexLocker lock(&s_mutex);
        QStringList result;
        for (const Line &line : s_lines) {
            if (line.category == category && line.type == type)
                result.append(line.message);
        }
        return result;
    }

    /// Whether the main thread has logged anything in a category.
    bool hasMainThreadIn(const char *category) const
    {
        const QMutexLocker lock(&s_mutex);
        return s_mainThreadCategories.contains(category);
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        const QMutexLocker lock(&s_mutex);
        if (QThread::currentThread() == QCoreApplication::instance()->thread())
            s_mainThreadCategories.append(context.category);
        s_lines.append({type, context.category, message});
    }

    struct Line {
        QtMsgType type;
        QByteArray category;
        QString message;
    };

    static inline QtMessageHandler s_previous = nullptr;
    static inline QMutex s_mutex;
    static inline QByteArrayList s_mainThreadCategories;
    static inline QList<Line> s_lines;
};

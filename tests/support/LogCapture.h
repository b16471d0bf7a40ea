// Collects what is logged while it lives.
#pragma once

#include <QMutex>
#include <QStringList>
#include <QtGlobal>

class LogCapture
{
public:
    LogCapture() { s_previous = qInstallMessageHandler(handle); }
    ~LogCapture()
    {
        qInstallMessageHandler(s_previous);
        s_lines.clear();
    }

    /// The informational messages of one category, in order.
    QStringList lines(const char *category) const
    {
        const QMutexLocker lock(&s_mutex);
        QStringList result;
        for (const auto &[name, message] : s_lines) {
            if (name == category)
                result.append(message);
        }
        return result;
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        const QMutexLocker lock(&s_mutex);
        if (type == QtInfoMsg)
            s_lines.append({QByteArray(context.category), message});
    }

    static inline QtMessageHandler s_previous = nullptr;
    static inline QMutex s_mutex;
    static inline QList<std::pair<QByteArray, QString>> s_lines;
};

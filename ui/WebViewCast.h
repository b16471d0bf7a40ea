// Web views where their class is not known: only the notes' module includes the web engine's headers.
#pragma once

#include <QObject>

class QWebEngineView;

namespace zel {

// A QWebEngineView is a QWidget and this a QObject, each as its first base: all three have one address.

inline QObject *asObject(QWebEngineView *view)
{
    return reinterpret_cast<QObject *>(view);
}

/// `object` is null or comes from `asObject`.
inline QWebEngineView *asWebView(QObject *object)
{
    return reinterpret_cast<QWebEngineView *>(object);
}

} // namespace zel

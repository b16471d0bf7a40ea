// An offer in words.
#pragma once

#include <QVariantMap>

namespace zel {

/// The name of what is offered: the application's, with the version of the update `record`.
QString offerTitle(const QVariantMap &record);

/// What the offer page tells those who do not see it, in the user's language: "Version 1.1 is available, you have 1.0."
/// Of `config` the keys "version" and "build" are read, of the update `record` the same. A rebuild of the same version
/// is told apart by the builds in parentheses. Null where one of the versions is not known.
QString offerText(const QVariantMap &config, const QVariantMap &record);

} // namespace zel

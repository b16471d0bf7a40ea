// The two versions of an offer, in words.
#pragma once

#include <QVariantMap>

namespace zel {

struct OfferTexts {
    QString current; ///< the running version
    QString offered;
};

/// Of `config` the keys "version" and "build" are read, of the update `record` the same. A rebuild of the same version
/// is told apart by the builds in parentheses.
OfferTexts offerTexts(const QVariantMap &config, const QVariantMap &record);

} // namespace zel

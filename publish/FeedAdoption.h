// Records that nobody has signed, of a feed that is to be signed.
#pragma once

#include "SignedFeed.h"

namespace zel {

/// Whether the feed is one to sign, or to add a signed record to: all of its records are signed, or those
/// that nobody has signed are among `vouched`. One that has both kinds is none, whatever is vouched for:
/// nobody but who had the folder meanwhile makes such a feed.
ZELError checkVouched(const QString &folder, const QJsonArray &records, const QList<qint64> &vouched);

/// Makes records of a feed that nobody has signed ready to be signed, by what their files are: the archive
/// has to hold the bundle of the record's build, sealed by nobody but those who sign, and a patch must lead
/// there from the archive of its build in the same feed; patches that do not, or cannot be tried because
/// there is no such build, are left out: `leftOut` receives objects of "build", "from" and "reason". What is
/// tried and what is signed is one copy of each file, in `scratch`, a folder that nobody else may write to.
ZELError adoptUnsigned(const QString &folder, const QString &scratch, const FeedSigning &signing,
                       QJsonArray &records, QJsonArray &leftOut);

} // namespace zel

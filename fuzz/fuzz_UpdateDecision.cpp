// Any bytes as an update server's reply, and as the signature of a record.
#include "check/UpdateDecision.h"
#include "Sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    constexpr qint64 installed = 7001;
    const zel::MachineFacts facts{QStringLiteral("x86"), {6, 1, 0}, {}};
    const zel::HostConfig config{.build = installed};
    const QByteArray body(reinterpret_cast<const char *>(data), qsizetype(size));
    const zel::Decision decision = zel::decideUpdate(body, config, installed, facts);
    const zel::RecordPolicy pinned{QStringList(QString(64, u'0')), QString(), 0, 1};
    zel::require(zel::decideUpdate(body, config, installed, facts, pinned, QUrl()).status
                 == ZELStatusUnknownError);
    const auto record = zel::SignedRecord::read(QString::fromLatin1(body.toBase64()));
    zel::require(!record || zel::verifyRecord(*record, pinned));
    zel::require((decision.status == ZELStatusUpdateAvailable) == !decision.result.isEmpty());
    if (decision.result.isEmpty())
        return 0;
    zel::require(decision.result.update->build > installed);
    zel::require(!decision.result.update->isBeta);
    zel::require(zel::CheckResult::fromMap(decision.result.toMap()).patch.has_value()
                 == decision.result.patch.has_value());
    decision.result.historyUrl();
    return 0;
}

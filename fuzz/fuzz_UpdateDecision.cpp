// Any bytes as an update server's reply.
#include "check/UpdateCheck.h"
#include "check/UpdateDecision.h"
#include "check/UpdateStatus.h"
#include "common/WireValues.h"
#include "Sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    constexpr qint64 installed = 7001;
    const zel::MachineFacts facts{QStringLiteral("x86"), {6, 1, 0}, {}};
    const QVariantMap config{{QStringLiteral("build"), installed}};
    const QByteArray body(reinterpret_cast<const char *>(data), qsizetype(size));
    const zel::Decision decision = zel::decideUpdate(body, config, installed, facts);
    zel::require((decision.status == zel::UpdateAvailable) == !decision.result.isEmpty());
    if (decision.result.isEmpty())
        return 0;
    const QVariantMap update = decision.result[QStringLiteral("update")].toMap();
    zel::require(zel::integerValue(update[QStringLiteral("build")]) > installed);
    zel::require(!update.contains(QStringLiteral("beta")));
    zel::historyUrl(decision.result);
    return 0;
}

#include "Offline.h"

#include "FreePorts.h"

#include "link/FeedMessage.h"

Environment nowhere(const ScratchFolder& scratch)
{
    const QList<int> ports = freePorts(2);
    return Environment({{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.file(QStringLiteral("support"))},
                           {QStringLiteral("TIDEWATCH_API_PORT"), QString::number(ports.value(0))},
                           {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(ports.value(1))}},
        scratch.path());
}

LiveFeed::Event feedMessage(const QByteArray& frame)
{
    return {LiveFeed::Event::Kind::Message, false, Feed::readEnvelope(frame)};
}

LiveFeed::Event feedLive(bool up)
{
    return {LiveFeed::Event::Kind::Live, up, std::nullopt};
}

#include "surface/words/SmallPrint.h"

using namespace Qt::StringLiterals;

namespace SessionWords {

SmallPrint smallPrint(const Session& session, bool speaking)
{
    SmallPrint print;
    const qint64 queued = session.queued.value_or(0);
    if (queued >= 1)
        print.queued = u"%1 queued"_s.arg(queued);
    const qint64 agents = session.agentsRunning.value_or(0);
    if (agents == 1)
        print.agents = u"1 agent"_s;
    else if (agents > 1)
        print.agents = u"%1 agents"_s.arg(agents);
    print.onPhone = session.term && session.term->phone.value_or(0) >= 1;
    print.speaking = speaking;
    return print;
}

QString phoneMarkHelp()
{
    return u"Open on a phone right now"_s;
}

QString speakingHelp()
{
    return u"Its reply is being read aloud"_s;
}

} // namespace SessionWords

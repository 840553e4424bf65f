#include "text/Machine.h"

#include "platform/Platform.h"

namespace machine {

QString thisMachine()
{
    static const QString noun = QStringLiteral("this ") + platform::machineNoun();
    return noun;
}

QString ThisMachine()
{
    static const QString noun = QStringLiteral("This ") + platform::machineNoun();
    return noun;
}

QString thisMachines()
{
    return thisMachine() + QStringLiteral("’s");
}

} // namespace machine

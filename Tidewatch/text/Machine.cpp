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

QString yourMachine()
{
    return QStringLiteral("your ") + platform::machineNoun();
}

QString YourMachine()
{
    return QStringLiteral("Your ") + platform::machineNoun();
}

QString theMachine()
{
    return QStringLiteral("the ") + platform::machineNoun();
}

} // namespace machine

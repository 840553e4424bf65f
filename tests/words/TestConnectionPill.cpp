#include "surface/words/ConnectionPill.h"

#include "Fixture.h"
#include "Golden.h"
#include "GoldenTest.h"

using namespace Qt::StringLiterals;

namespace {

QString render(const QString& section, const QStringList& in)
{
    if (section == u"connected"_s)
        return ConnectionPill::connectedSentence(in.at(0).toLongLong());
    if (section == u"devices"_s) {
        const std::optional<LocalStatus> status
            = Fixture::maybe<LocalStatus>(R"({"tailscale":{"installed":false},"devices":)" + in.at(0).toUtf8() + "}");
        const ConnectionPill::Look look = ConnectionPill::look({true, true, status, false}, Fixture::now());
        return u"%1 phones"_s.arg(look.phones) + (look.glasses ? u", glasses"_s : QString());
    }
    if (section != u"look"_s)
        return u"no words for the section "_s + section;
    const QString& flags = in.at(0);
    const std::optional<LocalStatus> status = Fixture::maybe<LocalStatus>(in.value(1).toUtf8());
    const ConnectionPill::Look look = ConnectionPill::look(
        {flags.contains(u"first read done"_s), flags.contains(u"alive"_s), status, true}, Fixture::now());
    static const QStringList routes{u"tailnet"_s, u"lan"_s, u"none"_s};
    return Golden::inkName(look.dot) + u": "_s + look.word + u" | "_s + look.help + u" | "_s
        + routes.at(int(look.route)) + (look.glow ? u", glowing"_s : QString());
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"connection-pill.txt"_s}, render);
}

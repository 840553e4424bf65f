#include "setup/ClaudeSDK.h"
#include "setup/Detection.h"
#include "setup/NodeInstaller.h"
#include "setup/ServiceInstaller.h"
#include "setup/ServiceManager.h"
#include "setup/ServiceSteps.h"
#include "setup/Uninstaller.h"

#include "platform/Platform.h"

#include "Fixture.h"
#include "GoldenTest.h"

#include <QUrl>

#include <functional>

using namespace Qt::StringLiterals;

namespace {

// "\n" and "\t" in an input stand for a line break and a tab, "@file" for a sample's bytes.
QByteArray bytesOf(const QString& input)
{
    if (input.startsWith(u'@'))
        return Fixture::sample(input.mid(1));
    return QString(input)
        .replace(u"\\n"_s, u"\n"_s)
        .replace(u"\\t"_s, u"\t"_s)
        .replace(u"$key"_s, platform::nodeArchive().indexKey)
        .toUtf8();
}

template <class T> QString said(const ::Outcome<T>& outcome, const std::function<QString(const T&)>& show)
{
    return outcome.ok() ? show(outcome.value()) : outcome.sentence();
}

QString report(const ServiceSteps::Report& report)
{
    return report.lines.join(u"\n"_s) + u" | "_s + QString::number(report.status);
}

ServiceManager managerFor(const QString& kind, bool testCopy)
{
    const QString label = u"com.harbourlab.tidewatch.daemon"_s;
    if (kind == u"launchd"_s)
        return ServiceManager(platform::ServiceManagerKind::Launchd, u"/bin/launchctl"_s,
            {label, u"/Users/p/Library/LaunchAgents/"_s + label + u".plist"_s, 501, testCopy});
    return ServiceManager(platform::ServiceManagerKind::Systemd, u"/usr/bin/systemctl"_s,
        {label, u"/t/support/systemd/"_s + label + u".service"_s, 501, testCopy});
}

QString render(const QString& section, const QStringList& in)
{
    if (section == u"npm"_s) {
        const ShellResult result{
            in.at(1).toInt(), QString(), QString::fromUtf8(bytesOf(in.at(0))).trimmed(), in.value(2) == u"timed out"_s};
        return ClaudeSDK::sentence(result, u"1.2.0"_s, ClaudeSDK::timeLimit, u"~/app/daemon"_s);
    }
    if (section == u"release"_s) {
        const auto picked = NodeInstaller::pickRelease(bytesOf(in.at(0)), QUrl(u"https://site.example"_s));
        return said<NodeInstaller::Release>(picked, [](const NodeInstaller::Release& release) {
            return release.version + u" from "_s
                + release.url.toString().replace(platform::nodeArchive().system, u"$system"_s);
        });
    }
    if (section == u"checksum"_s) {
        const auto digest = NodeInstaller::checksumFor(bytesOf(in.at(0)), u"node.tar.gz"_s);
        return said<QString>(digest, [](const QString& value) { return value; });
    }
    if (section == u"integration"_s)
        return report(ServiceSteps::integrationReport(Fixture::record<LocalStatus>(in.at(0).toUtf8())));
    if (section == u"phone"_s)
        return report(ServiceSteps::tailscaleReport(Fixture::record<LocalStatus>(in.at(0).toUtf8()), Fixture::now()));
    if (section == u"path"_s)
        return ServiceSteps::shortened(in.at(0), u"/home/ada"_s);
    if (section == u"uninstall"_s) {
        const QStringList notes = in.at(0).isEmpty() ? QStringList() : in;
        return Uninstaller::endTitle(notes) + u" | "_s + Uninstaller::endText(notes);
    }
    if (section == u"version"_s) {
        const std::optional<NodeVersion> version = NodeVersion::parse(QString::fromUtf8(bytesOf(in.at(0))));
        if (!version)
            return u"—"_s;
        return version->toString() + (version->meetsFloor() ? u", new enough"_s : u", too old"_s);
    }
    if (section == u"shell"_s)
        return Detection::pathFromShellOutput(QString::fromUtf8(bytesOf(in.at(0)))).value_or(u"—"_s);
    if (section == u"manager commands"_s) {
        const ServiceManager manager = managerFor(u"systemd"_s, in.value(1) == u"test copy"_s);
        QStringList lines;
        for (const ServiceManager::Command& command : in.at(0) == u"load"_s ? manager.load() : manager.unload())
            lines << u"%1 %2 (%3 s)"_s.arg(command.program, command.arguments.join(u' ')).arg(command.limitSeconds);
        return lines.join(u"\n"_s);
    }
    if (section == u"manager reading"_s) {
        const ServiceManager manager = managerFor(in.at(0), false);
        const ShellResult probe{
            in.at(1).toInt(), QString::fromUtf8(bytesOf(in.at(2))), QString(), in.value(3) == u"timed out"_s};
        const std::optional<int> pid = manager.pid(probe);
        return (manager.knows(probe) ? u"known"_s : u"unknown"_s) + (manager.hasLetGo(probe) ? u", let go"_s : u""_s)
            + (pid ? u", pid "_s + QString::number(*pid) : QString());
    }
    if (section == u"no user session"_s)
        return ServiceManager::noUserSession(ShellResult{1, QString(), in.at(0), false}) ? u"no session"_s
                                                                                         : u"a session"_s;
    if (section == u"progress"_s) {
        using Step = ServiceInstaller::Progress::Step;
        static const QHash<QString, Step> steps{{u"getting Node.js"_s, Step::GettingNode},
            {u"writing"_s, Step::Writing}, {u"starting"_s, Step::Starting}, {u"waiting"_s, Step::Waiting}};
        const QString line
            = ServiceInstaller::progressLine({steps.value(in.at(0)), std::nullopt}, managerFor(u"launchd"_s, false));
        return line.isEmpty() ? u"—"_s : line.startsWith(u"  "_s) ? u"indented: "_s + line.trimmed() : line;
    }
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"setup-words.txt"_s}, render);
}

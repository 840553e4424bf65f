#include "entry/CommandLine.h"

#include <charconv>

namespace {

class Arguments
{
public:
    explicit Arguments(const QStringList& list)
        : m_list(list)
    {
    }

    bool has(QLatin1StringView name) const { return m_list.indexOf(name) >= 0; }

    /// The element behind the first occurrence of name, when there is one.
    std::optional<QString> after(QLatin1StringView name) const
    {
        const qsizetype at = m_list.indexOf(name);
        if (at < 0 || at + 1 >= m_list.size())
            return std::nullopt;
        return m_list.at(at + 1);
    }

private:
    const QStringList& m_list;
};

// A whole-string, locale-independent number with no leading blank.
std::optional<double> parseSeconds(const std::optional<QString>& text)
{
    if (!text)
        return std::nullopt;
    QByteArray bytes = text->toLatin1();
    // from_chars knows no plus sign; one in front is still a number.
    if (bytes.startsWith('+') && bytes.size() > 1 && bytes.at(1) != '-')
        bytes.remove(0, 1);
    double value = 0;
    const char* end = bytes.constData() + bytes.size();
    const auto [stop, error] = std::from_chars(bytes.constData(), end, value);
    if (bytes.isEmpty() || error != std::errc() || stop != end)
        return std::nullopt;
    return value;
}

} // namespace

const QStringList& CommandLine::runStepNames()
{
    static const QStringList names = {
        QStringLiteral("service"),
        QStringLiteral("integration"),
        QStringLiteral("tailscale"),
        QStringLiteral("uninstall-service"),
        QStringLiteral("backpack"),
        QStringLiteral("uninstall-backpack"),
    };
    return names;
}

QString CommandLine::runStepUsage()
{
    return QStringLiteral("Usage: Tidewatch --run-step <") + runStepNames().join(QLatin1Char('|')) + QLatin1Char('>');
}

CommandLine CommandLine::scan(const QStringList& list)
{
    const Arguments arguments(list);
    CommandLine line;
    line.moved = arguments.has(QLatin1StringView("--moved"));

    const auto with = [&line](Work work, std::optional<QString> value = std::nullopt) {
        line.work = work;
        line.value = std::move(value);
        return line;
    };
    // Switches whose value is a folder are passed over when it is missing.
    const auto folderSwitch = [&](QLatin1StringView name, Work work) -> std::optional<CommandLine> {
        if (!arguments.has(name))
            return std::nullopt;
        if (auto folder = arguments.after(name))
            return with(work, std::move(folder));
        return std::nullopt;
    };

    if (arguments.has(QLatin1StringView("--selftest")))
        return with(Work::SelfTest);
    if (arguments.has(QLatin1StringView("--run-step"))) {
        if (auto step = arguments.after(QLatin1StringView("--run-step")))
            return with(Work::RunStep, std::move(step));
        return with(Work::RunStepUsage);
    }
    if (auto found = folderSwitch(QLatin1StringView("--render-iconset"), Work::RenderIconset))
        return *found;
    if (auto found = folderSwitch(QLatin1StringView("--selftest-node-download"), Work::NodeDownload))
        return *found;
    if (arguments.has(QLatin1StringView("--selftest-sdk-fetch"))) {
        std::optional<QString> destination = arguments.after(QLatin1StringView("--selftest-sdk-fetch"));
        if (destination && destination->startsWith(QLatin1StringView("--")))
            destination.reset();
        line.nodePath = arguments.after(QLatin1StringView("--node"));
        return with(Work::SdkFetch, std::move(destination));
    }
    if (arguments.has(QLatin1StringView("--selftest-stream")))
        return with(Work::Stream);
    if (arguments.has(QLatin1StringView("--backpack-scripts")))
        return with(Work::BackpackScripts);
    if (arguments.has(QLatin1StringView("--window-capture-selftest")))
        return with(Work::WindowCapture);
    if (auto found = folderSwitch(QLatin1StringView("--snapshots"), Work::Snapshots))
        return *found;
    if (arguments.has(QLatin1StringView("--feed-selftest"))) {
        line.seconds = parseSeconds(arguments.after(QLatin1StringView("--feed-selftest"))).value_or(0);
        line.signIn = arguments.has(QLatin1StringView("--sign-in"));
        line.open = arguments.has(QLatin1StringView("--open"));
        return with(Work::FeedSelfTest);
    }
    if (arguments.has(QLatin1StringView("--popover-selftest")))
        line.popoverSelfTestReport = arguments.after(QLatin1StringView("--popover-selftest"));
    if (auto found = folderSwitch(QLatin1StringView("--lens-guide-selftest"), Work::LensGuideSelfTest))
        return *found;
    if (auto found = folderSwitch(QLatin1StringView("--render-lens-guide"), Work::RenderLensGuide))
        return *found;
    if (arguments.has(QLatin1StringView("--render-popover"))) {
        if (auto folder = arguments.after(QLatin1StringView("--render-popover"))) {
            line.live = arguments.has(QLatin1StringView("--live"));
            line.page = arguments.after(QLatin1StringView("--page"));
            return with(Work::RenderPopover, std::move(folder));
        }
    }
    return line;
}

bool CommandLine::needsFonts() const
{
    switch (work) {
    case Work::SelfTest:
    case Work::Snapshots:
    case Work::LensGuideSelfTest:
    case Work::RenderLensGuide:
    case Work::RenderPopover:
        return true;
    default:
        return false;
    }
}

#pragma once

#include <QString>
#include <QStringList>

#include <optional>

/// What the process was asked to do, read from its whole argument list
/// (program path included). Only the first occurrence of a switch counts, a
/// value is the element right behind it, and unknown arguments are ignored.
struct CommandLine {
    enum class Work {
        Normal, ///< the menu-bar application
        SelfTest, ///< --selftest: a setup dry run in words
        RunStep, ///< --run-step <name>
        RunStepUsage, ///< --run-step with nothing behind it
        RenderIconset, ///< --render-iconset <folder>
        NodeDownload, ///< --selftest-node-download <folder>
        SdkFetch, ///< --selftest-sdk-fetch [folder] [--node <path>]
        Stream, ///< --selftest-stream
        BackpackScripts, ///< --backpack-scripts
        WindowCapture, ///< --window-capture-selftest
        Snapshots, ///< --snapshots <folder>
        FeedSelfTest, ///< --feed-selftest [seconds] [--sign-in] [--open]
        LensGuideSelfTest, ///< --lens-guide-selftest <folder>
        RenderLensGuide, ///< --render-lens-guide <folder>
        RenderPopover, ///< --render-popover <folder> [--live] [--page <main|pair>]
    };

    Work work = Work::Normal;
    /// The switch's value: a step name, a folder; none where the switch takes none or it was left out.
    std::optional<QString> value;
    std::optional<QString> nodePath; ///< --node, for the SDK fetch check
    double seconds = 0; ///< how long the feed self-check listens
    bool signIn = false;
    bool open = false;
    bool live = false;
    /// The panel's page a live render draws; none for the main page.
    std::optional<QString> page;
    /// Where the popover self-check writes its report; it doesn't end the scan.
    std::optional<QString> popoverSelfTestReport;
    /// Set by the program itself when it relaunches from Applications.
    bool moved = false;

    static CommandLine scan(const QStringList& arguments);

    /// The step names --run-step knows, in their order.
    static const QStringList& runStepNames();
    /// "Usage: Tidewatch --run-step <service|…>", the program's one usage line.
    static QString runStepUsage();

    bool isOneShot() const { return work != Work::Normal; }
    /// Whether the fonts are registered before the work starts.
    bool needsFonts() const;

    bool operator==(const CommandLine&) const = default;
};

#pragma once

#include "setup/ServiceInstaller.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

/// Takes Tidewatch off this machine in an order that leaves nothing that
/// would misbehave: Claude Code's hooks and the private name first (the
/// service does those), Backpack's rule, the service and its job file, the
/// login item, and the data only when asked. No step stops the rest; what
/// couldn't be done comes back as notes, one finished sentence each.
class Uninstaller
{
public:
    /// What the uninstall does beside the service; tests replace it.
    struct Hands {
        /// Removes Backpack's rule with the password dialog; inApp as BackpackSetup has it.
        std::function<void()> removeBackpack;
        /// Takes the login item away; the failure's words, or none.
        std::function<std::optional<QString>()> unregisterLoginItem;
        /// A line for standard output ("Tidewatch: …").
        std::function<void(const QString&)> say;
    };

    explicit Uninstaller(ServiceInstaller installer, bool inApp = false);
    Uninstaller(ServiceInstaller installer, Hands hands);

    /// Blocks; run it off the main thread. An empty list means all went well.
    QStringList run(bool deleteData);

    /// The words around it, for the dialogs.
    static QString dialogTitle();
    /// What goes, naming Claude Code only where it is here.
    static QString dialogText(bool claudeHere);
    static QString deleteDataChoice();
    /// Added to the dialog's text when the built-in Tailscale node is in use.
    static QString builtInNodeRemark();
    static QString endTitle(const QStringList& notes);
    /// The notes in lines (when there are any), then the closing sentence.
    static QString endText(const QStringList& notes);

private:
    ServiceInstaller m_installer;
    Hands m_hands;
};

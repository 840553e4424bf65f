#pragma once

#include "link/Account.h"
#include "link/Codex.h"
#include "surface/words/Palette.h"

#include <QDateTime>
#include <QLocale>
#include <QString>
#include <QUrl>

#include <optional>

/// What the account card of Claude Code says and offers.
struct AccountContent {
    /// What the card's one button does.
    enum class Act {
        Open, ///< open `url` in the browser
        SignIn, ///< start Claude Code's sign-in
        Setup, ///< bring the setup window forward
    };

    QString title;
    std::optional<QString> detail;
    /// Shown in amber.
    bool amber = false;
    /// The button's title; none for no button.
    std::optional<QString> action;
    std::optional<Act> act;
    /// For Act::Open.
    QUrl url;
    /// The button shows a spinner.
    bool busy = false;
    QString help;
    /// Identity of the state shown, for dismissing the card until it changes.
    QString key;

    bool operator==(const AccountContent&) const = default;
};

/// The short account of Codex's trouble, as the menu bar's dot reads it.
struct CodexCardWords {
    enum class Case { TooOld, Unreachable, SignedOut };

    Case which = Case::TooOld;
    QString title;
    /// The menu bar's dot is raised for it.
    bool raisesDot = false;
    QString detail;

    bool operator==(const CodexCardWords&) const = default;
};

/// Codex's card when Codex leads and its trouble raises the dot.
struct CodexAccountCardWords {
    enum class Act {
        OpenSetup, ///< the setup window, at its Codex step
        SignIn, ///< a terminal window running codex login
    };

    QString title;
    QString line;
    QString action;
    Act act = Act::OpenSetup;
    QString help;
    /// "too-old/<version>" or "signed-out".
    QString key;

    bool operator==(const CodexAccountCardWords&) const = default;
};

/// Codex's trouble as a sentence in a line, where it shows no card.
struct CodexLine {
    QString text;
    /// "Codex" before the text when Claude Code is there too; empty otherwise.
    QString label;
    Ink ink = Ink::Secondary;
    double opacity = 1.0;
    /// "Codex: " and the title.
    QString spoken;

    bool operator==(const CodexLine&) const = default;
};

namespace AccountWords {

/// "state/window/resetsAt/login": the parts of the account that make a new
/// card when they change.
QString key(const Account& account);

/// Claude Code's card; none when the account is fine or its limit is over.
/// `beside` names Claude Code where Codex is in use too; `setupSignIn` says
/// the setup window is doing the sign-in.
std::optional<AccountContent> content(const Account& account, const QDateTime& now, const QLocale& locale,
    bool signingIn, bool beside, bool setupSignIn = false);

std::optional<CodexCardWords> codexCard(const Codex& codex);
/// The card Codex shows when it leads and the dot is raised; none otherwise.
std::optional<CodexAccountCardWords> codexAccountCard(const Codex& codex, bool lead);
/// Codex's trouble as a line, in every case without a card.
std::optional<CodexLine> codexLine(const Codex& codex, bool beside);

/// How Codex is signed in, for Settings; never the e-mail address.
std::optional<QString> codexAccountWords(const Codex& codex);
/// "Pro Lite", "Plus", …; an unknown plan with its first letter raised.
QString planName(const QString& planType);

} // namespace AccountWords

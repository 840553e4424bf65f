import QtQuick

// The usage section after Claude Code's account card: its lines and meters,
// then Codex's card or line, its lines and meters. All words come finished
// from `usage`; the card's button and its dismissal go out as signals.
Column {
    id: section
    property var usage: ({})
    signal signInCodex()
    signal dismissCodexCard()
    width: parent ? parent.width : 0
    spacing: 10
    visible: !!usage.shown

    Label { text: section.usage.claudeLine || ""; size: 12; strong: true; color: "#7A7468"; width: parent.width }
    Column {
        width: parent.width
        spacing: 12
        visible: (section.usage.claudeMeters || []).length > 0
        Repeater {
            model: section.usage.claudeMeters || []
            MeterRow { required property var modelData; reading: modelData }
        }
    }
    Label { text: section.usage.probeLine || ""; size: 11; color: "#7A7468"; width: parent.width }

    NoticeCard {
        visible: !!section.usage.codexCard
        notice: section.usage.codexCard || ({})
        onActed: section.signInCodex()
        onDismissed: section.dismissCodexCard()
    }
    Row {
        // Codex's trouble in a line, read as one phrase.
        readonly property var line: section.usage.codexLine
        readonly property string spoken: line ? line.spoken : ""
        Accessible.role: Accessible.StaticText
        Accessible.name: spoken
        visible: !!line
        spacing: 8
        Label { text: parent.line ? parent.line.label.toUpperCase() : ""; size: 10; color: "#7A7468"; font.letterSpacing: 1.8; anchors.verticalCenter: parent.verticalCenter }
        Label {
            text: parent.line ? parent.line.text : ""
            size: 12
            strong: true
            color: parent.line ? parent.line.ink : "#B5B0A6"
            opacity: parent.line ? parent.line.opacity : 1
        }
    }
    Label { text: section.usage.codexError || ""; size: 11; color: "#FF7878"; width: parent.width }
    Label { text: section.usage.codexLeadLine || ""; size: 12; strong: true; color: "#B5B0A6"; width: parent.width }
    Column {
        width: parent.width
        spacing: 12
        visible: (section.usage.codexMeters || []).length > 0
        Repeater {
            model: section.usage.codexMeters || []
            MeterRow { required property var modelData; reading: modelData }
        }
    }
    Label { text: section.usage.codexLimitedLine || ""; size: 12; strong: true; color: "#B5B0A6"; width: parent.width }
}

import QtQuick

// The panel's one page: header, then what needs the user, the sessions, the
// account and its usage, Stay awake, and the footer. Everything it says comes
// from `popover.page`; it lays out and forwards clicks, nothing more.
Rectangle {
    id: root
    property var popover
    readonly property var page: popover ? popover.page : ({})
    // The pages: main here below, the others loaded by name in `otherPage`.
    readonly property var pages: popover ? popover.pages : null
    readonly property bool onMain: !pages || pages.current === "main"
    readonly property real contentHeight: (onMain ? column.implicitHeight : otherPage.implicitHeight) + 2 * 16
    width: 360
    height: contentHeight
    radius: 16
    color: "#14110E"
    border.width: 1
    border.color: Qt.rgba(0.96, 0.95, 0.92, 0.11)

    Rectangle {
        // The top edge's highlight.
        x: 16; width: parent.width - 32; y: 0; height: 1
        gradient: Gradient {
            orientation: Gradient.Horizontal
            GradientStop { position: 0; color: Qt.rgba(0.96, 0.95, 0.92, 0) }
            GradientStop { position: 0.5; color: Qt.rgba(0.96, 0.95, 0.92, 0.25) }
            GradientStop { position: 1; color: Qt.rgba(0.96, 0.95, 0.92, 0) }
        }
    }

    Column {
        id: otherPage
        visible: !root.onMain
        x: 16
        y: 16
        width: parent.width - 32
        spacing: 12

        PopoverHeader {
            pill: root.page.pill || ({})
            opens: !!root.pages
            opensHelp: root.pages ? root.pages.words.settingsHelp : ""
            onOpened: root.pages.show("settings")
        }
        Loader {
            width: parent.width
            readonly property string current: root.pages ? root.pages.current : "main"
            source: current === "pair" ? "PairPage.qml" : current === "settings" ? "SettingsPage.qml" : ""
            onLoaded: { item.pages = root.pages; if (current === "settings") item.popover = root.popover }
        }
    }

    Column {
        id: column
        visible: root.onMain
        x: 16
        y: 16
        width: parent.width - 32
        spacing: 12

        PopoverHeader {
            pill: root.page.pill || ({})
            opens: !!root.pages
            opensHelp: root.pages ? root.pages.words.settingsHelp : ""
            onOpened: root.pages.show("settings")
        }

        Row {
            // The battery, when it puts the sessions at risk.
            readonly property var battery: root.page.battery
            visible: !!battery
            spacing: 8
            Accessible.description: battery ? battery.help : ""
            Rectangle {
                width: 16; height: 8; radius: 2
                anchors.verticalCenter: parent.verticalCenter
                color: "transparent"
                border.color: "#E8B341"
                Rectangle {
                    x: 2; y: 2; height: 4; radius: 1
                    width: parent.parent.battery && !parent.parent.battery.critical ? 4 : 0
                    color: "#E8B341"
                }
            }
            Label { text: parent.battery ? parent.battery.text : ""; size: 11; color: "#E8B341" }
            Label { text: parent.battery ? parent.battery.time : ""; size: 11; color: "#B5B0A6" }
        }

        Label {
            visible: root.page.state === "checking"
            text: root.page.checking || ""
            color: "#B5B0A6"
            width: parent.width
        }

        Card {
            visible: root.page.state === "down"
            edge: Qt.rgba(1, 0.47, 0.47, 0.35)
            Label { text: root.page.down ? root.page.down.title : ""; strong: true; size: 13; width: parent.width }
            Label { text: root.page.down ? root.page.down.line : ""; color: "#B5B0A6"; size: 11; width: parent.width }
            Row {
                spacing: 10
                GlassButton {
                    title: root.page.down ? root.page.down.action : ""
                    primary: true
                    accent: "#F5F2EB"
                    busy: !!(root.page.down && root.page.down.busy)
                    onPressed: root.popover.serviceAction(root.page.down.act)
                }
                Label {
                    visible: text.length > 0
                    text: root.page.down ? root.page.down.progress : ""
                    color: "#B5B0A6"
                    size: 11
                    anchors.verticalCenter: parent.verticalCenter
                }
            }
        }

        Repeater {
            model: root.page.notices || []
            NoticeCard {
                required property var modelData
                notice: modelData
                onDismissed: function (id) { root.popover.dismissNotice(id) }
                onActed: function (id) { root.popover.noticeAction(id) }
                onChose: function (id, choice) { root.popover.chooseNotice(id, choice) }
            }
        }
        Row {
            visible: !!root.page.undo
            spacing: 8
            Label { text: root.page.undo ? root.page.undo.text : ""; size: 11; color: "#7A7468"; anchors.verticalCenter: parent.verticalCenter }
            GlassButton { title: root.page.undo ? root.page.undo.action : ""; onPressed: root.popover.undoDismiss() }
        }

        Label {
            text: (root.page.waitingHeading || "").toUpperCase()
            size: 10
            color: "#E8B341"
            font.letterSpacing: 1.8
        }
        Repeater {
            model: root.page.attention || []
            Loader {
                required property var modelData
                width: parent.width
                sourceComponent: modelData.type === "approval" ? approvalCard
                               : modelData.type === "ask" ? askCard : foldedLine
                property var card: modelData
            }
        }

        Item {
            visible: root.page.state === "main"
            width: parent.width
            implicitHeight: 16
            Label {
                text: root.page.seam ? root.page.seam.label.toUpperCase() : ""
                size: 10
                color: "#7A7468"
                font.letterSpacing: 1.8
            }
            Row {
                anchors.right: parent.right
                spacing: 10
                Label {
                    text: root.page.seam ? root.page.seam.quiet : ""
                    size: 10
                    color: "#45403A"
                    font.letterSpacing: 0.9
                }
                Repeater {
                    model: root.page.seam ? root.page.seam.marks : []
                    Label { required property var modelData; text: modelData.text; size: 10; color: modelData.ink }
                }
            }
        }
        Column {
            width: parent.width
            spacing: 2
            Repeater {
                model: root.page.sessions || []
                SessionRow {
                    required property var modelData
                    session: modelData
                    onOpen: function (id) { root.popover.openTerminal(id) }
                    onAct: function (id, act) { root.popover.rowAction(id, act) }
                }
            }
        }
        Label { text: root.page.more || ""; monospaced: true; size: 10; color: "#7A7468" }
        Label { text: root.page.empty || ""; size: 12; strong: true; color: "#B5B0A6"; width: parent.width }
        AutomationsLine {
            visible: !!root.page.automations
            automations: root.page.automations || ({})
            onOpen: function (sessionId) { root.popover.openTerminal(sessionId) }
            onResume: root.popover.resumeAutomations()
        }

        Item {
            // The usage section's heading, with its note on the right.
            readonly property var usage: root.page.usage || ({})
            visible: !!usage.shown
            width: parent.width
            implicitHeight: 16
            Label { text: parent.usage.heading || ""; size: 10; color: "#7A7468"; font.letterSpacing: 1.8 }
            Label { anchors.right: parent.right; text: parent.usage.note || ""; size: 10; color: "#7A7468" }
        }
        Card {
            visible: !!root.page.account
            Label { text: root.page.account ? root.page.account.title : ""; strong: true; color: root.page.account ? root.page.account.ink : "#B5B0A6"; width: parent.width }
            Label { text: root.page.account ? root.page.account.detail : ""; size: 11; color: "#B5B0A6"; width: parent.width }
            GlassButton {
                title: root.page.account ? root.page.account.action : ""
                help: root.page.account ? root.page.account.help : ""
                busy: !!(root.page.account && root.page.account.busy)
                visible: title.length > 0
                onPressed: root.popover.accountAction()
            }
        }

        UsageSection {
            usage: root.page.usage || ({})
            onSignInCodex: root.popover.signInCodex()
            onDismissCodexCard: root.popover.dismissCodexCard()
        }

        AwakeSection {
            visible: !!root.page.awake
            Binding on awake { when: !!root.page.awake; value: root.page.awake }
            onChoose: function (mode) { root.popover.setAwake(mode) }
            onExtend: root.popover.extendBackpack()
            onMinBattery: function (percent) { root.popover.setMinBattery(percent) }
            onSetUpBackpack: root.popover.setupBackpack()
        }

        Flow {
            width: parent.width
            spacing: 8
            visible: root.page.state === "main"
            Repeater {
                model: root.page.quick || []
                GlassButton {
                    required property var modelData
                    title: modelData.title
                    help: modelData.help
                    onPressed: root.popover.quickAction(modelData.id)
                }
            }
        }

        Label { text: root.page.note || ""; size: 11; color: "#E8B341"; width: parent.width }

        Item {
            width: parent.width
            implicitHeight: 26
            GlassButton {
                anchors.left: parent.left
                title: root.page.footer ? root.page.footer.quit : ""
                help: root.page.footer ? root.page.footer.quitHelp : ""
                onPressed: root.popover.quit()
            }
            GlassButton {
                anchors.right: parent.right
                visible: !!root.pages
                title: root.pages ? root.pages.words.settings : ""
                help: root.pages ? root.pages.words.settingsHelp : ""
                onPressed: root.pages.show("settings")
            }
        }
    }

    Component {
        id: approvalCard
        ApprovalCard {
            item: parent ? parent.card : ({})
            onDecided: function (id, decision) { root.popover.decide(id, decision) }
        }
    }
    Component {
        id: askCard
        AskCard {
            item: parent ? parent.card : ({})
            onOpenTerminal: function (sessionId) { root.popover.openTerminal(sessionId) }
        }
    }
    Component {
        id: foldedLine
        FoldedApproval { item: parent ? parent.card : ({}) }
    }

    DialogHost {
        anchors.fill: parent
        radius: 16
        dialog: root.page.dialog || null
        onConfirmed: function (option) { root.popover.confirmDialog(option) }
        onCancelled: root.popover.cancelDialog()
        onSecondary: root.popover.dialogSecondary()
    }
}

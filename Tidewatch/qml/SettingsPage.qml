import QtQuick

// The Settings page: phone access and its route, the paired phones and
// glasses, the files rule, the private name, Stay awake, and the way out.
// Everything it says comes from the "settings" part of `popover.page`.
Column {
    id: page
    property var popover
    /// The panel's pages, where "Pair another phone" leads; none where there is no pair page.
    property var pages
    readonly property var settings: popover && popover.page.settings ? popover.page.settings : ({})
    readonly property var awake: popover ? popover.page.awake : undefined
    width: parent ? parent.width : 0
    spacing: 12

    readonly property var phone: settings.phone || ({})
    readonly property var devices: settings.devices

    GlassButton {
        visible: !!page.pages
        title: page.pages ? page.pages.words.back : ""
        onPressed: page.pages.back()
    }
    Label { text: page.settings.title || ""; size: 14; strong: true }

    Column {
        width: parent.width
        spacing: 6
        Label { text: page.phone.heading || ""; size: 10; color: "#7A7468"; font.letterSpacing: 1.8 }
        Label { text: page.phone.url || ""; monospaced: true; size: 12; color: "#7FFFA0"; width: parent.width; wrapMode: Text.WrapAnywhere }
        Repeater {
            model: page.phone.lines || []
            Label {
                required property var modelData
                required property int index
                text: modelData
                size: index === 0 ? 12 : 11
                color: index === 0 ? page.phone.ink : "#B5B0A6"
                width: parent.width
            }
        }
        Label { text: page.phone.wifi || ""; size: 11; color: "#4A8C5E"; width: parent.width }
        Label { text: page.phone.testCopy || ""; size: 11; color: "#7A7468"; width: parent.width }

        Card {
            visible: !!page.phone.key
            edge: Qt.rgba(0.91, 0.70, 0.25, 0.35)
            Label { text: page.phone.key ? page.phone.key.text : ""; strong: true; color: "#E8B341"; width: parent.width }
            Label { text: page.phone.key ? page.phone.key.line : ""; size: 11; color: "#B5B0A6"; width: parent.width }
            GlassButton {
                title: page.phone.key ? page.phone.key.action : ""
                help: page.phone.key ? page.phone.key.help : ""
                onPressed: page.popover.fixTailscaleKey()
            }
        }
        Row {
            spacing: 8
            GlassButton {
                visible: !!page.phone.choice
                title: page.phone.choice ? page.phone.choice.title : ""
                help: page.phone.choice ? page.phone.choice.help : ""
                onPressed: page.popover.chooseBuiltInTailscale(page.phone.choice.builtIn)
            }
            GlassButton {
                visible: !!page.phone.signOut
                title: page.phone.signOut ? page.phone.signOut.title : ""
                help: page.phone.signOut ? page.phone.signOut.help : ""
                onPressed: page.popover.signOutTailscale()
            }
        }
    }

    Column {
        visible: !!page.devices
        width: parent.width
        spacing: 4
        Item {
            width: parent.width
            implicitHeight: 16
            Label { text: page.devices ? page.devices.heading : ""; size: 10; color: "#7A7468"; font.letterSpacing: 1.8 }
            Label { anchors.right: parent.right; text: page.devices ? page.devices.connected : ""; size: 10; color: "#B5B0A6" }
        }
        Repeater {
            model: page.devices ? page.devices.rows : []
            DeviceRow {
                required property var modelData
                device: modelData
                onForget: function (id) { page.popover.forgetDevice(id) }
            }
        }
        Label { text: page.devices ? page.devices.none : ""; size: 11; color: "#7A7468" }
        GlassButton {
            visible: !!page.pages
            title: page.devices ? page.devices.pair : ""
            help: page.devices ? page.devices.pairHelp : ""
            onPressed: page.pages.show("pair")
        }
    }

    SwitchRow {
        visible: !!page.settings.files
        setting: page.settings.files || ({})
        onToggled: function (on) { page.popover.setBrowseOutsideProjects(on) }
    }
    SwitchRow {
        visible: !!page.settings.name
        setting: page.settings.name || ({})
        onToggled: function (on) { page.popover.setPrivateName(on) }
    }

    AwakeSection {
        visible: !!page.awake
        Binding on awake { when: !!page.awake; value: page.awake }
        onChoose: function (mode) { page.popover.setAwake(mode) }
        onExtend: page.popover.extendBackpack()
        onMinBattery: function (percent) { page.popover.setMinBattery(percent) }
        onSetUpBackpack: page.popover.setupBackpack()
    }

    GlassButton {
        title: page.settings.uninstall || ""
        visible: title.length > 0
        onPressed: page.popover.uninstall()
    }
}

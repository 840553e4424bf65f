import QtQuick

// The one open question, above the page.
Rectangle {
    id: host
    property var dialog: null
    signal confirmed(bool option)
    signal cancelled()
    signal secondary()
    visible: !!dialog
    color: Qt.rgba(0.06, 0.05, 0.04, 0.82)
    MouseArea { anchors.fill: parent; onClicked: host.cancelled() }

    Card {
        anchors.centerIn: parent
        width: parent.width - 40
        spacing: 8
        Label { text: host.dialog ? host.dialog.eyebrow : ""; size: 10; color: "#7A7468"; font.letterSpacing: 1.2 }
        Label { text: host.dialog ? host.dialog.title : ""; strong: true; size: 14; width: parent.width }
        Label { text: host.dialog ? host.dialog.line : ""; size: 11; color: "#B5B0A6"; width: parent.width }
        Label { text: host.dialog ? host.dialog.more : ""; size: 10; color: "#7A7468"; width: parent.width }
        Row {
            id: option
            property bool checked: false
            spacing: 6
            visible: host.dialog && host.dialog.option.length > 0
            Rectangle {
                readonly property string spoken: host.dialog ? host.dialog.option : ""
                Accessible.role: Accessible.CheckBox
                Accessible.name: spoken
                width: 14; height: 14; radius: 3
                color: option.checked ? "#7FFFA0" : "transparent"
                border.color: "#7A7468"
                MouseArea { anchors.fill: parent; onClicked: option.checked = !option.checked }
            }
            Label { text: host.dialog ? host.dialog.option : ""; size: 11; color: "#B5B0A6" }
        }
        Row {
            spacing: 8
            GlassButton {
                title: host.dialog ? host.dialog.secondary : ""
                visible: title.length > 0
                onPressed: host.secondary()
            }
            GlassButton {
                title: host.dialog ? host.dialog.primary : ""
                primary: true
                accent: host.dialog ? host.dialog.accent : "#7FFFA0"
                busy: host.dialog ? host.dialog.working : false
                onPressed: host.confirmed(option.checked)
            }
        }
    }
}

import QtQuick

// A setting that is on or off, with its tag while on, its help, an optional
// why behind a disclosure, and the service's note about it.
Column {
    id: row
    required property var setting
    property bool whyOpen: false
    signal toggled(bool on)
    width: parent ? parent.width : 0
    spacing: 4

    Item {
        width: parent.width
        implicitHeight: 22
        Row {
            anchors.verticalCenter: parent.verticalCenter
            spacing: 8
            Label { text: row.setting.title || ""; size: 12; strong: true; wrapMode: Text.NoWrap }
            Label { text: row.setting.tag || ""; size: 10; color: "#7FFFA0"; wrapMode: Text.NoWrap; anchors.verticalCenter: parent.verticalCenter }
        }
        Rectangle {
            Accessible.role: Accessible.CheckBox
            Accessible.name: row.setting.title || ""
            Accessible.checked: !!row.setting.on
            Accessible.description: row.setting.help || ""
            anchors.right: parent.right
            anchors.verticalCenter: parent.verticalCenter
            width: 34; height: 20; radius: 10
            color: row.setting.on ? "#7FFFA0" : "#2C2823"
            Rectangle {
                width: 16; height: 16; radius: 8
                y: 2
                x: row.setting.on ? parent.width - width - 2 : 2
                color: row.setting.on ? "#14110E" : "#B5B0A6"
            }
            MouseArea { anchors.fill: parent; onClicked: row.toggled(!row.setting.on) }
        }
    }
    Label { text: row.setting.help || ""; size: 11; color: "#B5B0A6"; width: parent.width }
    Label { text: row.setting.note || ""; size: 11; color: "#7A7468"; width: parent.width }
    Label {
        readonly property string spoken: text
        text: row.setting.whyTitle || ""
        size: 11
        color: "#7A7468"
        font.underline: true
        Accessible.role: Accessible.Button
        Accessible.name: text
        MouseArea { anchors.fill: parent; onClicked: row.whyOpen = !row.whyOpen }
    }
    Label { visible: row.whyOpen && text.length > 0; text: row.setting.why || ""; size: 11; color: "#B5B0A6"; width: parent.width }
}

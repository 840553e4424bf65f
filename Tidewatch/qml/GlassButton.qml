import QtQuick

// A quiet pill of a button; `accent` fills it for the one action that matters.
Rectangle {
    id: button
    property string title
    property string help
    property color accent: "transparent"
    property bool primary: false
    property bool busy: false
    signal pressed()

    readonly property string spoken: title
    Accessible.role: Accessible.Button
    Accessible.name: title
    Accessible.description: help
    implicitWidth: word.implicitWidth + 22
    implicitHeight: 26
    radius: 13
    color: primary ? accent : (mouse.containsMouse ? "#2C2823" : "#221F1B")
    border.width: primary ? 0 : 1
    border.color: Qt.rgba(0.96, 0.95, 0.92, 0.11)
    opacity: busy ? 0.6 : 1

    Label {
        id: word
        anchors.centerIn: parent
        text: button.title
        size: 11
        strong: true
        color: button.primary ? "#14110E" : "#F5F2EB"
        wrapMode: Text.NoWrap
    }
    MouseArea {
        id: mouse
        anchors.fill: parent
        hoverEnabled: true
        enabled: !button.busy
        onClicked: button.pressed()
    }
}

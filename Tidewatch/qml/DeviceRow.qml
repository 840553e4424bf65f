import QtQuick

// One paired phone or pair of glasses on the Settings page; a hover reveals Forget.
Item {
    id: row
    required property var device
    signal forget(string id)
    width: parent ? parent.width : 0
    implicitHeight: 30

    Accessible.role: Accessible.ListItem
    Accessible.name: device.name
    Accessible.description: device.via

    MouseArea {
        id: hover
        anchors.fill: parent
        hoverEnabled: true
        acceptedButtons: Qt.NoButton
    }
    Rectangle {
        anchors.fill: parent
        radius: 8
        color: hover.containsMouse ? "#221F1B" : "transparent"
    }
    Row {
        // As tall as the row, so the name reads before the button that a hover reveals.
        x: 8
        height: parent.height
        spacing: 8
        Label { text: row.device.name; size: 12; wrapMode: Text.NoWrap; height: parent.height; verticalAlignment: Text.AlignVCenter }
        Label { text: row.device.via; size: 11; color: "#7A7468"; wrapMode: Text.NoWrap; height: parent.height; verticalAlignment: Text.AlignVCenter }
    }
    GlassButton {
        anchors.right: parent.right
        anchors.rightMargin: 2
        anchors.verticalCenter: parent.verticalCenter
        visible: hover.containsMouse || forgetHover.containsMouse
        title: row.device.forget
        onPressed: row.forget(row.device.id)
        MouseArea { id: forgetHover; anchors.fill: parent; hoverEnabled: true; acceptedButtons: Qt.NoButton }
    }
}

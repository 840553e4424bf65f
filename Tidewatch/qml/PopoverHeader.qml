import QtQuick

// The name, and the connection pill: the service's reach in one word.
Item {
    property var pill: ({})
    // A click on the pill opens the connection settings, once that page is there.
    property bool opens: false
    property string opensHelp
    signal opened()
    width: parent ? parent.width : 0
    implicitHeight: 32

    Label {
        anchors.left: parent.left
        anchors.verticalCenter: parent.verticalCenter
        text: "Tidewatch"
        size: 14
        strong: true
    }
    Rectangle {
        readonly property string spoken: pill.word || ""
        Accessible.role: opens ? Accessible.Button : Accessible.StaticText
        Accessible.name: spoken
        Accessible.description: opens ? opensHelp : (pill.help || "")
        anchors.right: parent.right
        anchors.verticalCenter: parent.verticalCenter
        implicitWidth: row.implicitWidth + 18
        implicitHeight: 22
        radius: 11
        color: "#221F1B"
        visible: spoken.length > 0
        Row {
            id: row
            anchors.centerIn: parent
            spacing: 6
            Rectangle {
                width: 7; height: 7; radius: 3.5
                anchors.verticalCenter: parent.verticalCenter
                color: pill.dot || "#7A7468"
            }
            Label { text: pill.word || ""; size: 11; color: "#B5B0A6"; wrapMode: Text.NoWrap }
        }
        MouseArea {
            anchors.fill: parent
            enabled: opens
            hoverEnabled: opens
            cursorShape: opens ? Qt.PointingHandCursor : Qt.ArrowCursor
            onClicked: opened()
        }
    }
}

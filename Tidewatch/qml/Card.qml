import QtQuick

// The raised ground every card of the page stands on.
Rectangle {
    default property alias content: column.data
    property alias spacing: column.spacing
    property color edge: Qt.rgba(0.96, 0.95, 0.92, 0.08)
    width: parent ? parent.width : 0
    implicitHeight: column.implicitHeight + 24
    radius: 12
    color: "#1B1814"
    border.width: 1
    border.color: edge

    Column {
        id: column
        x: 12
        y: 12
        width: parent.width - 24
        spacing: 6
    }
}

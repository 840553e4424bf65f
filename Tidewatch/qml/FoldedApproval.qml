import QtQuick

// An answer given a moment ago, folded to one line where its card stood.
Item {
    property var item: ({})
    width: parent ? parent.width : 0
    implicitHeight: 26
    Row {
        anchors.verticalCenter: parent.verticalCenter
        x: 12
        spacing: 8
        Rectangle { width: 6; height: 6; radius: 3; color: "#4A8C5E"; anchors.verticalCenter: parent.verticalCenter }
        Label { text: item.words; color: "#B5B0A6"; size: 11; wrapMode: Text.NoWrap }
        Label { text: item.source; color: "#7A7468"; size: 11; wrapMode: Text.NoWrap }
    }
}

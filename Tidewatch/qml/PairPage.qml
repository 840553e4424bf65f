import QtQuick
import Tidewatch 1.0

// The pair page: the one-time code as a QR with its link to copy, what the
// pairing waits on, and where the phone gets the app. Everything it says
// comes from `pages.pair`.
Column {
    id: root
    property var pages
    readonly property var pair: pages ? pages.pair : ({})
    width: parent ? parent.width : 0
    spacing: 12

    GlassButton {
        title: root.pages ? root.pages.words.back : ""
        onPressed: root.pages.back()
    }

    Label {
        text: root.pair.lead || ""
        strong: true
        size: root.pair.paired ? 15 : 13
        color: root.pair.warns ? "#E8B341" : "#F5F2EB"
        width: parent.width
    }

    Rectangle {
        // The light ground holds the code's own quiet zone.
        visible: (root.pair.link || "").length > 0
        anchors.horizontalCenter: parent.horizontalCenter
        width: 216; height: 216
        radius: 12
        color: "#F5F2EB"
        QRCodeView {
            anchors.fill: parent
            anchors.margins: 4
            text: root.pair.link || ""
        }
    }

    Label { text: root.pair.detail || ""; size: 11; color: "#B5B0A6"; width: parent.width }
    Label { text: root.pair.wifi || ""; size: 11; color: "#4A8C5E"; width: parent.width }

    Row {
        visible: (root.pair.link || "").length > 0
        width: parent.width
        spacing: 8
        Label {
            width: parent.width - copy.width - 8
            text: root.pair.link || ""
            monospaced: true
            size: 10
            color: "#7A7468"
            wrapMode: Text.NoWrap
            elide: Text.ElideMiddle
            anchors.verticalCenter: parent.verticalCenter
        }
        GlassButton {
            id: copy
            title: root.pair.copy || ""
            help: root.pair.copyHelp || ""
            onPressed: root.pages.copyLink()
        }
    }

    GlassButton {
        visible: title.length > 0
        title: root.pair.again || ""
        help: root.pair.againHelp || ""
        primary: true
        accent: "#F5F2EB"
        onPressed: root.pages.pairAnother()
    }

    Label {
        visible: (root.pair.downloadUrl || "").length > 0
        text: root.pair.download || ""
        size: 11
        color: "#B5B0A6"
        font.underline: link.containsMouse
        width: parent.width
        Accessible.role: Accessible.Link
        Accessible.name: text
        MouseArea {
            id: link
            anchors.fill: parent
            hoverEnabled: true
            cursorShape: Qt.PointingHandCursor
            onClicked: root.pages.openDownload()
        }
    }
}

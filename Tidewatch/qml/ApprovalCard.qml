import QtQuick

// A tool request: what it wants to run, and the answers it can take here.
Card {
    id: card
    property var item: ({})
    signal decided(string id, string decision)
    edge: Qt.rgba(0.91, 0.70, 0.25, 0.35)

    Item {
        width: parent.width
        implicitHeight: Math.max(tool.implicitHeight, expiry.implicitHeight)
        Label { id: tool; text: card.item.tool; strong: true; color: "#E8B341"; anchors.left: parent.left }
        Label {
            id: expiry
            anchors.right: parent.right
            text: card.item.expiry || ""
            color: card.item.expiryInk || "#7A7468"
            monospaced: true
            size: 10
        }
    }
    Label { text: card.item.source; color: "#7A7468"; size: 11; width: parent.width }
    Rectangle {
        width: parent.width
        implicitHeight: well.implicitHeight + 14
        radius: 8
        color: "#0F0D0A"
        Label {
            id: well
            x: 8; y: 7
            width: parent.width - 16
            monospaced: true
            size: 11
            color: "#B5B0A6"
            text: (card.item.prompt || "") + " " + (card.item.command || "")
            wrapMode: Text.WrapAnywhere
            maximumLineCount: 4
            elide: Text.ElideRight
        }
    }
    Flow {
        width: parent.width
        spacing: 8
        Repeater {
            model: card.item.buttons || []
            GlassButton {
                required property var modelData
                required property int index
                title: modelData.title
                help: modelData.help
                primary: index === 0
                accent: "#7FFFA0"
                onPressed: card.decided(card.item.id, modelData.decision)
            }
        }
    }
}

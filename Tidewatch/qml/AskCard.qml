import QtQuick

// A question or a plan, answered where it was asked.
Card {
    id: card
    property var item: ({})
    signal openTerminal(string sessionId)

    Item {
        width: parent.width
        implicitHeight: summary.implicitHeight
        Label { id: summary; text: card.item.summary; strong: true; width: parent.width - 70 }
        Label {
            anchors.right: parent.right
            text: card.item.expiry || ""
            color: card.item.expiryInk || "#7A7468"
            monospaced: true
            size: 10
        }
    }
    Label { text: card.item.source; color: "#7A7468"; size: 11; width: parent.width }
    Label { text: card.item.where; color: "#B5B0A6"; size: 11; width: parent.width }
    GlassButton {
        title: card.item.whereAction || ""
        visible: title.length > 0
        onPressed: card.openTerminal(card.item.sessionId)
    }
}

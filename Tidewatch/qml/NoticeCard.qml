import QtQuick

// A notice: its title in its tone, a sentence, and the one thing to do, or a
// row of choices with a live figure beside it. Dragged right, it goes.
Card {
    id: card
    property var notice: ({})
    signal dismissed(string id)
    signal acted(string id)
    signal chose(string id, string choice)
    edge: Qt.rgba(0.96, 0.95, 0.92, 0.11)

    Row {
        spacing: 8
        width: parent.width
        Rectangle { width: 3; height: heading.height; radius: 1.5; color: card.notice.ink || "transparent" }
        Label { id: heading; text: card.notice.title || ""; strong: true; size: 12; width: parent.width - 11 }
    }
    Label { text: card.notice.line || ""; color: "#B5B0A6"; width: parent.width; size: 11 }
    GlassButton {
        title: card.notice.action || ""
        help: card.notice.help || ""
        busy: !!card.notice.busy
        visible: title.length > 0
        onPressed: card.acted(card.notice.id)
    }
    Row {
        visible: (card.notice.choices || []).length > 0
        spacing: 8
        Repeater {
            model: card.notice.choices || []
            GlassButton {
                required property string modelData
                title: modelData
                onPressed: card.chose(card.notice.id, modelData)
            }
        }
        Label {
            text: card.notice.figure || ""
            monospaced: true
            size: 10
            color: "#E8B341"
            anchors.verticalCenter: parent.verticalCenter
        }
    }

    DragHandler {
        target: card
        yAxis.enabled: false
        xAxis.minimum: 0
        onActiveChanged: if (!active) { if (card.x > card.width / 3) card.dismissed(card.notice.id); card.x = 0 }
    }
}

import QtQuick

// One session: its title and place, the line in its colour, chips and stamp,
// and under an idle one the buttons that move it on.
Item {
    id: row
    property var session: ({})
    signal open(string id)
    signal act(string id, int act)

    Accessible.role: Accessible.ListItem
    Accessible.name: session.title || ""
    Accessible.description: session.help || ""
    width: parent ? parent.width : 0
    implicitHeight: column.implicitHeight + 14

    Rectangle {
        anchors.fill: parent
        radius: 10
        color: hover.hovered ? "#1B1814" : "transparent"
    }
    HoverHandler { id: hover }
    TapHandler { onTapped: if (row.session.opens) row.open(row.session.id) }

    Column {
        id: column
        x: 10
        y: 7
        width: parent.width - 20
        spacing: 3
        Item {
            width: parent.width
            implicitHeight: heading.implicitHeight
            Label {
                id: heading
                text: row.session.title
                strong: true
                size: 12
                elide: Text.ElideRight
                wrapMode: Text.NoWrap
                width: parent.width - stamp.width - 8
            }
            Row {
                id: stamp
                anchors.right: parent.right
                spacing: 6
                Label { text: row.session.age; monospaced: true; size: 10; color: "#7A7468"; wrapMode: Text.NoWrap }
                Label { text: row.session.stamp; monospaced: true; size: 10; color: "#45403A"; wrapMode: Text.NoWrap }
            }
        }
        Label {
            text: row.session.line
            color: row.session.lineInk || "#7A7468"
            opacity: row.session.lineOpacity || 1
            size: 11
            width: parent.width
            maximumLineCount: 2
            elide: Text.ElideRight
        }
        Row {
            // The chips are read as one sentence rather than word by word.
            readonly property string spoken: row.session.spoken || ""
            Accessible.role: Accessible.StaticText
            Accessible.name: spoken
            spacing: 6
            Repeater {
                model: [row.session.place, row.session.chip, row.session.mode].filter(function (t) { return t && t.length > 0 })
                Rectangle {
                    required property string modelData
                    implicitWidth: chip.implicitWidth + 12
                    implicitHeight: 18
                    radius: 9
                    color: "#221F1B"
                    Label { id: chip; anchors.centerIn: parent; text: modelData; size: 10; color: "#B5B0A6"; wrapMode: Text.NoWrap }
                }
            }
        }
        Label { text: row.session.small; size: 10; color: "#7A7468"; monospaced: true; wrapMode: Text.NoWrap }
        Flow {
            width: parent.width
            spacing: 8
            visible: (row.session.actions || []).length > 0
            Repeater {
                model: row.session.actions || []
                GlassButton {
                    required property var modelData
                    title: modelData.title
                    help: modelData.help
                    onPressed: row.act(row.session.id, modelData.act)
                }
            }
        }
    }
    GlassButton {
        anchors.right: parent.right
        anchors.rightMargin: 8
        anchors.bottom: parent.bottom
        anchors.bottomMargin: 6
        title: row.session.openTitle || ""
        visible: hover.hovered && row.session.opens
        onPressed: row.open(row.session.id)
    }
}

import QtQuick

// The one calm line about automations, under the sessions: paused with its
// Resume, the run at work with its age (a click opens its terminal), the next
// run with its time, or what waits for its moment.
Item {
    id: line
    property var automations: ({})
    signal open(string sessionId)
    signal resume()

    readonly property bool opens: (automations.sessionId || "").length > 0
    Accessible.role: opens ? Accessible.Button : Accessible.StaticText
    Accessible.name: automations.text || ""
    Accessible.description: automations.help || ""
    width: parent ? parent.width : 0
    implicitHeight: 26

    Rectangle {
        anchors.fill: parent
        radius: 10
        color: hover.hovered && line.opens ? "#1B1814" : "transparent"
    }
    HoverHandler { id: hover }
    TapHandler { enabled: line.opens; onTapped: line.open(line.automations.sessionId) }

    // Every part stands at the top, 26 high, its words centred in it, so the
    // line reads left to right, the button last.
    Row {
        id: row
        x: 10
        height: 26
        spacing: 8
        Rectangle {
            // Amber while a run waits on the user.
            width: 6; height: 6; radius: 3
            y: 10
            color: line.automations.needsYou ? "#E8B341" : (line.automations.kind === "running" ? "#7FFFA0" : "#7A7468")
        }
        Label {
            text: line.automations.text || ""
            size: 12
            strong: true
            color: line.automations.kind === "paused" ? "#B5B0A6" : "#F5F2EB"
            wrapMode: Text.NoWrap
            height: 26
            verticalAlignment: Text.AlignVCenter
        }
        Label {
            text: line.automations.tag || ""
            size: 10
            color: "#7A7468"
            height: 26
            verticalAlignment: Text.AlignVCenter
        }
        Item {
            // The timer or the clock, drawn small before its figure.
            visible: (line.automations.glyph || "").length > 0
            width: 10; height: 10
            y: 8
            Rectangle { anchors.fill: parent; radius: 5; color: "transparent"; border.width: 1; border.color: "#7A7468" }
            Rectangle { x: 4.5; y: 2; width: 1; height: 3.5; color: "#7A7468" }
            Rectangle { x: 4.5; y: 4.5; width: 3; height: 1; color: "#7A7468"; visible: line.automations.glyph === "clock" }
            Rectangle { x: 4; y: -2; width: 2; height: 2; color: "#7A7468"; visible: line.automations.glyph === "timer" }
        }
        Label {
            text: line.automations.figure || ""
            monospaced: true
            size: 10
            color: "#B5B0A6"
            height: 26
            verticalAlignment: Text.AlignVCenter
        }
    }
    GlassButton {
        anchors.right: parent.right
        title: line.automations.action || ""
        help: line.automations.actionHelp || ""
        visible: title.length > 0
        onPressed: line.resume()
    }
}

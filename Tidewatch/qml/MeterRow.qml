import QtQuick

// One usage window: its name, how much is gone, the bar with the pace's ghost, and when it resets.
Item {
    id: meter
    property var reading: ({})
    readonly property string spoken: reading.spoken || ""
    Accessible.role: Accessible.ProgressBar
    Accessible.name: spoken
    width: parent ? parent.width : 0
    implicitHeight: 34

    Row {
        spacing: 6
        Label { text: meter.reading.label; size: 10; color: "#7A7468"; font.letterSpacing: 1.2; wrapMode: Text.NoWrap }
        Label { text: meter.reading.chip; size: 10; color: "#45403A"; wrapMode: Text.NoWrap }
    }
    Label {
        anchors.right: parent.right
        text: meter.reading.percent
        monospaced: true
        size: 11
        strong: true
        color: meter.reading.percentInk || "#F5F2EB"
    }
    Rectangle {
        id: bar
        y: 18
        width: parent.width
        height: 4
        radius: 2
        color: "#2C2823"
        Rectangle {
            visible: meter.reading.ghost >= 0
            width: parent.width * Math.min(1, meter.reading.ghost)
            height: parent.height
            radius: 2
            color: meter.reading.barInk || "#7A7468"
            opacity: 0.25
        }
        Rectangle {
            width: meter.reading.fill > 0 ? Math.max(3, parent.width * Math.min(1, meter.reading.fill)) : 0
            height: parent.height
            radius: 2
            color: meter.reading.barInk || "#7A7468"
            Behavior on width { NumberAnimation { duration: 300; easing.type: Easing.Bezier; easing.bezierCurve: [0.16, 1, 0.3, 1, 1, 1] } }
        }
    }
    Label {
        anchors.right: parent.right
        y: 24
        text: meter.reading.tag
        size: 10
        monospaced: true
        color: meter.reading.tagInk || "#7A7468"
    }
}

import QtQuick

// One usage window: its chip and name, how much is gone, when it resets or
// the limit comes, and the bar with the pace's ghost under the fill.
Item {
    id: meter
    property var reading: ({})
    readonly property string spoken: reading.spoken || ""
    Accessible.role: Accessible.ProgressBar
    Accessible.name: spoken
    width: parent ? parent.width : 0
    implicitHeight: 23

    Row {
        spacing: 6
        Label { text: (meter.reading.chip || "").toUpperCase(); size: 10; color: "#B5B0A6"; font.letterSpacing: 1.8; wrapMode: Text.NoWrap }
        Label { text: meter.reading.label || ""; size: 10; color: "#7A7468"; font.letterSpacing: 1.8; wrapMode: Text.NoWrap }
        Label {
            text: meter.reading.percent || ""
            size: 11
            strong: true
            color: meter.reading.percentInk || "#F5F2EB"
            wrapMode: Text.NoWrap
        }
    }
    Label {
        anchors.right: parent.right
        text: meter.reading.tag || ""
        size: 11
        strong: true
        monospaced: true
        color: meter.reading.tagInk || "#7A7468"
        wrapMode: Text.NoWrap
    }
    Rectangle {
        id: bar
        y: 20
        width: parent.width
        height: 3
        radius: 1.5
        color: "#2C2823"
        Rectangle {
            visible: meter.reading.ghost >= 0
            width: Math.max(3, parent.width * Math.min(1, meter.reading.ghost))
            height: parent.height
            radius: 1.5
            color: meter.reading.barInk || "#7A7468"
            opacity: 0.3
        }
        Rectangle {
            width: meter.reading.fill > 0 ? Math.max(3, parent.width * Math.min(1, meter.reading.fill)) : 0
            height: parent.height
            radius: 1.5
            color: meter.reading.barInk || "#7A7468"
            Behavior on width { NumberAnimation { duration: 300; easing.type: Easing.Bezier; easing.bezierCurve: [0.16, 1, 0.3, 1, 1, 1] } }
        }
    }
}

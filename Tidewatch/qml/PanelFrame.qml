import QtQuick

// The open panel: the popover, scrolled inside the height the screen leaves it.
Flickable {
    id: frame
    property var popover
    property real maxHeight: 600
    signal escaped()
    width: 360
    height: Math.min(Math.max(60, page.contentHeight), maxHeight)
    contentWidth: 360
    contentHeight: page.contentHeight
    clip: true
    boundsBehavior: contentHeight > maxHeight ? Flickable.DragAndOvershootBounds : Flickable.StopAtBounds
    focus: true
    Keys.onEscapePressed: function (event) { event.accepted = true; frame.escaped() }

    MenuPopover {
        id: page
        popover: frame.popover
        opacity: 0
        Component.onCompleted: opacity = 1
        Behavior on opacity { NumberAnimation { duration: 300; easing.type: Easing.Bezier; easing.bezierCurve: [0.16, 1, 0.3, 1, 1, 1] } }
    }
}

import QtQuick

// Stay awake: the three modes, the service's line, and Backpack's offer and controls.
Column {
    id: section
    property var awake: ({ modes: [], phrase: "", line: "", extend: "", heading: "", extendTitle: "", lower: "", raise: "", busy: false, backpackSetUp: false, offer: { title: "", body: "", enable: "", busy: "", decline: "" } })
    property bool offering: false
    signal choose(string mode)
    signal extend()
    signal minBattery(int percent)
    signal setUpBackpack()
    width: parent ? parent.width : 0
    spacing: 8

    Item {
        width: parent.width
        implicitHeight: heading.implicitHeight
        Label { id: heading; text: (section.awake.heading || "").toUpperCase(); size: 10; color: "#7A7468"; font.letterSpacing: 1.8 }
        Label { anchors.right: parent.right; text: section.awake.phrase; size: 10; color: "#B5B0A6" }
    }
    Row {
        spacing: 6
        Repeater {
            model: section.awake.modes || []
            GlassButton {
                required property var modelData
                title: modelData.title
                help: modelData.help
                primary: modelData.chosen
                accent: "#B5B0A6"
                onPressed: {
                    if (modelData.name === "backpack" && !section.awake.backpackSetUp)
                        section.offering = true
                    else
                        section.choose(modelData.name)
                }
            }
        }
    }
    Label {
        text: section.awake.line
        width: parent.width
        size: 11
        color: section.awake.warn ? "#E8B341" : "#B5B0A6"
    }
    Row {
        spacing: 8
        visible: (section.awake.extend || "").length > 0
        Label { text: section.awake.extend; size: 11; color: "#E8B341"; anchors.verticalCenter: parent.verticalCenter }
        GlassButton { title: section.awake.extendTitle; onPressed: section.extend() }
    }
    Row {
        spacing: 8
        visible: !!section.awake.battery
        GlassButton {
            title: "−"
            help: section.awake.lower
            visible: !!section.awake.battery && section.awake.battery.canLower
            onPressed: section.minBattery(section.awake.battery.value - 5)
        }
        Label { text: section.awake.battery ? section.awake.battery.text : ""; size: 11; anchors.verticalCenter: parent.verticalCenter }
        GlassButton {
            title: "+"
            help: section.awake.raise
            visible: !!section.awake.battery && section.awake.battery.canRaise
            onPressed: section.minBattery(section.awake.battery.value + 5)
        }
    }
    Card {
        visible: section.offering
        Label { text: section.awake.offer ? section.awake.offer.title : ""; strong: true; width: parent.width }
        Label { text: section.awake.offer ? section.awake.offer.body : ""; size: 11; color: "#B5B0A6"; width: parent.width }
        Row {
            spacing: 8
            GlassButton {
                title: section.awake.busy ? section.awake.offer.busy : (section.awake.offer ? section.awake.offer.enable : "")
                primary: true
                accent: "#7FFFA0"
                busy: section.awake.busy
                onPressed: section.setUpBackpack()
            }
            GlassButton {
                title: section.awake.offer ? section.awake.offer.decline : ""
                onPressed: section.offering = false
            }
        }
    }
}

import QtQuick

// Every line of words on the panel: the page's text in the house face.
Text {
    property bool monospaced: false
    property int size: 12
    property bool strong: false
    color: "#F5F2EB"
    font.family: monospaced ? "JetBrains Mono" : "Manrope"
    font.pixelSize: size
    font.weight: strong ? Font.DemiBold : Font.Normal
    wrapMode: Text.Wrap
    textFormat: Text.PlainText
    visible: text.length > 0
}

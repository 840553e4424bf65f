.pragma library
// The popover's one palette, spacing and motion; colours that carry meaning come from the page.
var text = "#F5F2EB"
var secondary = "#B5B0A6"
var muted = "#7A7468"
var faint = "#45403A"
var track = "#2C2823"
var green = "#7FFFA0"
var amber = "#E8B341"
var red = "#FF7878"
var ground = "#14110E"
var groundDeep = "#0F0D0A"
var raised = "#1B1814"
var raisedMore = "#221F1B"
var sans = "Manrope"
var mono = "JetBrains Mono"
var curve = [0.16, 1, 0.3, 1, 1, 1]
var pad = 16

#include "surface/macos/MacStatusButton.h"

#import <AppKit/AppKit.h>

#include <QHash>
#include <QImage>

#include <utility>

#if __has_feature(objc_arc)
#define TW_RETAIN(object) (object)
#define TW_RELEASE(object) ((void)0)
#else
#define TW_RETAIN(object) [(object) retain]
#define TW_RELEASE(object) [(object) release]
#endif

@interface TWStatusTarget : NSObject
@property (nonatomic, assign) MacStatusButton* owner;
- (void)clicked:(id)sender;
@end

namespace {

// Empty while the button has no window, as when the menu bar has no room for it.
QRect placeOnScreen(NSStatusBarButton* button)
{
    if (button == nil || button.window == nil)
        return {};
    const NSRect onScreen = [button.window convertRectToScreen:[button convertRect:button.bounds toView:nil]];
    // Qt's global coordinates run down from the top of the first screen.
    const CGFloat top = NSMaxY(NSScreen.screens.firstObject.frame);
    return QRect(
        int(onScreen.origin.x), int(top - NSMaxY(onScreen)), int(onScreen.size.width), int(onScreen.size.height));
}

} // namespace

@implementation TWStatusTarget
- (void)clicked:(id)sender
{
    MacStatusButton* owner = self.owner;
    const QRect place = placeOnScreen((NSStatusBarButton*)sender);
    if (owner == nullptr || place.isNull())
        return;
    Q_EMIT owner->clicked(place);
}
@end

namespace {

NSBitmapImageRep* representation(const QImage& image)
{
    CGImageRef picture = image.toCGImage();
    NSBitmapImageRep* rep = [[NSBitmapImageRep alloc] initWithCGImage:picture];
    CGImageRelease(picture);
    // Both bitmaps stand for the same 18 points; the system picks by the screen's scale.
    rep.size = NSMakeSize(MenuBarFrames::points, MenuBarFrames::points);
    return rep;
}

} // namespace

struct MacStatusButton::Native {
    NSStatusItem* item = nil;
    TWStatusTarget* target = nil;
    /// Built once per frame; a tick then only hands over an image.
    QHash<QString, NSImage*> images;
};

std::unique_ptr<StatusButton> StatusButton::create(const QString& autosaveName)
{
    return std::make_unique<MacStatusButton>(autosaveName);
}

MacStatusButton::MacStatusButton(const QString& autosaveName, QObject* parent)
    : StatusButton(parent)
    , m_native(std::make_unique<Native>())
{
    m_native->item = TW_RETAIN([NSStatusBar.systemStatusBar statusItemWithLength:NSSquareStatusItemLength]);
    m_native->item.autosaveName = autosaveName.toNSString();
    m_native->target = [[TWStatusTarget alloc] init];
    m_native->target.owner = this;
    NSStatusBarButton* button = m_native->item.button;
    button.target = m_native->target;
    button.action = @selector(clicked:);
    [button sendActionOn:NSEventMaskLeftMouseDown | NSEventMaskRightMouseDown];
    button.imagePosition = NSImageOnly;
}

MacStatusButton::~MacStatusButton()
{
    m_native->target.owner = nullptr;
    m_native->item.button.target = nil;
    [NSStatusBar.systemStatusBar removeStatusItem:m_native->item];
    TW_RELEASE(m_native->item);
    TW_RELEASE(m_native->target);
    for (NSImage* image : std::as_const(m_native->images))
        TW_RELEASE(image);
}

void MacStatusButton::setImage(const MenuBarFrames::Frame& frame, const MenuBarFrames::Image& image)
{
    const QString key = frame.name();
    NSImage* made = m_native->images.value(key, nil);
    if (made == nil) {
        made = [[NSImage alloc] initWithSize:NSMakeSize(MenuBarFrames::points, MenuBarFrames::points)];
        NSBitmapImageRep* normal = representation(image.normal);
        NSBitmapImageRep* retina = representation(image.retina);
        [made addRepresentation:normal];
        [made addRepresentation:retina];
        TW_RELEASE(normal);
        TW_RELEASE(retina);
        [made setTemplate:YES];
        made.accessibilityDescription = @"Tidewatch";
        m_native->images.insert(key, made);
    }
    m_native->item.button.image = made;
}

void MacStatusButton::setTitle(const QString& title)
{
    NSStatusBarButton* button = m_native->item.button;
    button.title = title.toNSString();
    button.imagePosition = title.isEmpty() ? NSImageOnly : NSImageLeading;
    button.font = [NSFont monospacedDigitSystemFontOfSize:NSFont.systemFontSize weight:NSFontWeightMedium];
}

void MacStatusButton::setLabel(const QString& label)
{
    NSStatusBarButton* button = m_native->item.button;
    button.toolTip = label.toNSString();
    button.accessibilityLabel = label.toNSString();
}

void MacStatusButton::setHighlighted(bool highlighted)
{
    [m_native->item.button highlight:highlighted];
}

void MacStatusButton::setWide(bool wide)
{
    m_native->item.length = wide ? NSVariableStatusItemLength : NSSquareStatusItemLength;
}

QRect MacStatusButton::place() const
{
    return placeOnScreen(m_native->item.button);
}

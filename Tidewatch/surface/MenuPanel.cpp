#include "surface/MenuPanel.h"

#include "model/AppModel.h"
#include "surface/PopoverModel.h"

#include <QCursor>
#include <QGuiApplication>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickView>
#include <QScreen>

#include <algorithm>
#include <cmath>

namespace {

constexpr int kGap = 5;
constexpr int kEdge = 8;
constexpr int kBottomRoom = 10;
constexpr int kMinHeight = 60;
constexpr int kMinMaxHeight = 320;

} // namespace

MenuPanel::MenuPanel(AppModel& model, const Clock& clock, QObject* parent)
    : QObject(parent)
    , m_model(model)
    , m_clock(clock)
{
    // The system's password dialog takes the panel away; it comes back after.
    connect(&m_model, &AppModel::panelWanted, this, [this] { open(m_anchor); });
    // Coming back from a terminal window is when a sign-in there may have finished.
    if (auto* application = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        connect(application, &QGuiApplication::applicationStateChanged, this, [this](Qt::ApplicationState state) {
            if (state == Qt::ApplicationActive)
                m_model.applicationBecameActive();
        });
    }
}

MenuPanel::~MenuPanel() = default;

QRect MenuPanel::placement(const QRect& anchor, const QRect& available, int contentHeight)
{
    const int top = std::max(anchor.bottom() + 1, available.top()) + kGap;
    const int maxHeight = std::max(kMinMaxHeight, available.bottom() + 1 - top - kBottomRoom);
    const int height = std::min(std::max(kMinHeight, contentHeight), maxHeight);
    const int middle = anchor.left() + anchor.width() / 2;
    const int x = std::clamp(middle - kWidth / 2, available.left() + kEdge,
        std::max(available.left() + kEdge, available.right() + 1 - kWidth - kEdge));
    return QRect(x, top, kWidth, height);
}

void MenuPanel::toggle(QRect anchor)
{
    if (isOpen())
        close();
    else
        open(anchor);
}

void MenuPanel::open(QRect anchor)
{
    if (isOpen())
        return;
    if (anchor.isEmpty())
        anchor = QRect(QCursor::pos(), QSize(1, 1));
    m_anchor = anchor;
    QScreen* screen = QGuiApplication::screenAt(anchor.center());
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    m_available = screen ? screen->availableGeometry() : QRect(0, 0, 1440, 900);

    m_popover = std::make_unique<PopoverModel>(m_model, m_dismissed, m_clock);
    m_popover->setTicking(true);
    m_view = std::make_unique<QQuickView>();
    // A panel of its own: no taskbar entry, above the rest, and a click elsewhere closes it.
    m_view->setFlags(Qt::Popup | Qt::FramelessWindowHint | Qt::NoDropShadowWindowHint);
    m_view->setColor(Qt::transparent);
    const int maxHeight = placement(m_anchor, m_available, 1 << 20).height();
    m_view->setInitialProperties({{QStringLiteral("popover"), QVariant::fromValue<QObject*>(m_popover.get())},
        {QStringLiteral("maxHeight"), maxHeight}});
    m_view->setSource(QUrl(QStringLiteral("qrc:/qml/PanelFrame.qml")));
    if (QQuickItem* root = m_view->rootObject()) {
        connect(root, &QQuickItem::heightChanged, this, &MenuPanel::fit);
        connect(root, SIGNAL(escaped()), this, SLOT(close()));
    }
    connect(m_view.get(), &QWindow::visibleChanged, this, [this](bool visible) {
        if (!visible)
            QMetaObject::invokeMethod(this, &MenuPanel::close, Qt::QueuedConnection);
    });
    fit();
    m_view->show();
    m_view->requestActivate();
    m_model.setPopoverVisible(true);
    Q_EMIT openChanged(true);
}

void MenuPanel::fit()
{
    if (!m_view || !m_view->rootObject())
        return;
    const int content = int(std::ceil(m_view->rootObject()->height()));
    // The top edge stays where it hung; only the bottom moves.
    m_view->setGeometry(placement(m_anchor, m_available, content));
}

void MenuPanel::close()
{
    if (!isOpen())
        return;
    std::unique_ptr<QQuickView> view = std::move(m_view);
    view->hide();
    view.reset();
    m_popover.reset();
    m_model.setPopoverVisible(false);
    Q_EMIT openChanged(false);
}

#include "surface/PopoverPages.h"

#include "entry/Preferences.h"
#include "link/ServiceCalls.h"
#include "model/AppModel.h"
#include "model/TailscaleAction.h"
#include "phone/PopoverPairing.h"
#include "surface/QRCodeView.h"
#include "surface/words/PairWords.h"

#include <QClipboard>
#include <QDesktopServices>
#include <QGuiApplication>
#include <QTimer>
#include <QUrl>

using namespace Qt::StringLiterals;

PopoverPages::PopoverPages(AppModel& model, const Clock& clock, QObject* parent)
    : QObject(parent)
    , m_model(model)
{
    QRCodeView::registerType();
    if (!model.isSample())
        m_client = new DaemonClient(model.environment());
    m_pairing = new PopoverPairing(
        m_client,
        [&model] {
            if (!model.status())
                return PopoverPairing::Routes{};
            return PopoverPairing::Routes{phoneAddress(*model.status()), hasLanRoute(*model.status())};
        },
        clock, this);
    connect(m_pairing, &PopoverPairing::changed, this, &PopoverPages::refreshPair);
    connect(m_pairing, &PopoverPairing::paired, this, &PopoverPages::onPaired);
    connect(&m_model, &AppModel::statusChanged, this, &PopoverPages::refreshPair);
    refreshPair();
}

PopoverPages::~PopoverPages()
{
    m_pairing->disconnect(this);
    m_pairing->stop();
    if (m_client) {
        // Long enough for the withdrawal of the last code to reach the service.
        QTimer::singleShot(int(ServiceCalls::pairCancel({}).timeout * 1000), m_client, &QObject::deleteLater);
    }
}

QVariantMap PopoverPages::words() const
{
    return {{u"back"_s, PairWords::back()}, {u"settings"_s, PairWords::settings()},
        {u"settingsHelp"_s, PairWords::settingsHelp()}};
}

void PopoverPages::show(const QString& page)
{
    if (page != kMain && page != kPair && page != kSettings)
        return;
    if (page == m_current)
        return;
    if (m_current == kPair)
        m_pairing->stop();
    m_current = page;
    Q_EMIT currentChanged();
    if (page == kPair)
        m_pairing->start();
}

void PopoverPages::pairAnother()
{
    if (m_current == kPair)
        m_pairing->start();
}

void PopoverPages::copyLink()
{
    if (m_pairing->pair())
        QGuiApplication::clipboard()->setText(m_pairing->pair()->link);
}

void PopoverPages::openDownload()
{
    const QString address = m_pair.value(u"downloadUrl"_s).toString();
    if (!address.isEmpty())
        QDesktopServices::openUrl(QUrl(address));
}

void PopoverPages::onPaired()
{
    Preferences(m_model.environment()).setFlag(Preferences::setupCompleted, true);
    m_model.read(true);
}

void PopoverPages::refreshPair()
{
    const PopoverPairing& pairing = *m_pairing;
    const PairWords::Page words = PairWords::page(
        pairing.phase(), pairing.failure(), pairing.detail(), pairing.pair().has_value(), pairing.localOnly());
    const QString link = pairing.pair() ? pairing.pair()->link : QString();
    const QVariantMap page{{u"lead"_s, words.lead}, {u"detail"_s, words.detail}, {u"wifi"_s, words.wifi},
        {u"paired"_s, pairing.phase() == PopoverPairing::Phase::Paired},
        {u"link"_s, words.showsCode ? link : QString()}, {u"warns"_s, words.warns},
        {u"copy"_s, words.showsCode ? PairWords::copyLink() : QString()}, {u"copyHelp"_s, PairWords::copyLinkHelp()},
        {u"download"_s, PairWords::downloadLine()},
        {u"downloadUrl"_s, m_model.status() ? PairWords::downloadAddress(*m_model.status()) : QString()},
        {u"again"_s, words.offersAnother ? PairWords::pairAnother() : QString()},
        {u"againHelp"_s, PairWords::pairAnotherHelp()}};
    if (page == m_pair)
        return;
    m_pair = page;
    Q_EMIT pairChanged();
}

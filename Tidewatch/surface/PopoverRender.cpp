#include "surface/PopoverRender.h"

#include "base/Clock.h"
#include "entry/Environment.h"
#include "model/AppModel.h"
#include "model/DismissedNotices.h"
#include "surface/MenuBarFrames.h"
#include "surface/PopoverModel.h"
#include "surface/StatusButton.h"
#include "surface/StatusItemController.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickView>

#include <algorithm>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace PopoverRender {

namespace {

void say(const QString& line)
{
    std::fputs(qPrintable(line + u'\n'), stdout);
    std::fflush(stdout);
}

void waitFor(const std::function<bool()>& done, int limitMs)
{
    QElapsedTimer waited;
    waited.start();
    while (!done() && waited.elapsed() < limitMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 50);
}

// Samples say "@-90" for 90 seconds before the render, so their ages and countdowns read the same on any day.
QJsonValue resolveMoments(const QJsonValue& value, const QDateTime& now)
{
    if (value.isString()) {
        const QString text = value.toString();
        bool ok = false;
        const double offset = text.startsWith(u'@') ? text.mid(1).toDouble(&ok) : 0;
        return ok ? QJsonValue(double(now.toMSecsSinceEpoch() + qint64(offset * 1000))) : value;
    }
    if (value.isArray()) {
        QJsonArray array;
        for (const QJsonValue& element : value.toArray())
            array.append(resolveMoments(element, now));
        return array;
    }
    if (value.isObject()) {
        QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it)
            it.value() = resolveMoments(it.value(), now);
        return object;
    }
    return value;
}

QJsonArray samples()
{
    QFile file(u":/qml/PopoverSamples.json"_s);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object().value(u"samples"_s).toArray();
}

/// The status item as it stands, in three lines.
QString statusItemText(StatusItemController& item)
{
    const auto& shown = item.icon().shown();
    return u"image: "_s + (shown ? shown->name() : u"none"_s) + u"\ntitle: "_s + item.icon().title() + u"\nlabel: "_s
        + item.icon().labelText() + u'\n';
}

bool writeFile(const QString& path, const QByteArray& contents, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(contents) != contents.size()) {
        *error = u"Couldn’t write %1: %2"_s.arg(path, file.errorString());
        return false;
    }
    return true;
}

// A repair's progress as a sample writes it: {"step": "copying", "fraction": 0.5}.
ServiceInstaller::Progress repairProgress(const QJsonObject& written)
{
    using Step = ServiceInstaller::Progress::Step;
    static const QHash<QString, Step> steps{{u"gettingNode"_s, Step::GettingNode}, {u"copying"_s, Step::Copying},
        {u"fetchingSDK"_s, Step::FetchingSDK}, {u"writing"_s, Step::Writing}, {u"starting"_s, Step::Starting},
        {u"waiting"_s, Step::Waiting}};
    ServiceInstaller::Progress progress{steps.value(written.value(u"step"_s).toString(), Step::Copying), std::nullopt};
    if (written.value(u"fraction"_s).isDouble())
        progress.fraction = written.value(u"fraction"_s).toDouble();
    return progress;
}

} // namespace

QStringList sampleNames()
{
    QStringList names;
    for (const QJsonValue& sample : samples())
        names << sample.toObject().value(u"name"_s).toString();
    return names;
}

bool showSample(AppModel& model, const QString& name, const QDateTime& now)
{
    for (const QJsonValue& entry : samples()) {
        const QJsonObject sample = resolveMoments(entry, now).toObject();
        if (sample.value(u"name"_s).toString() != name)
            continue;
        AppModel::Picture picture;
        picture.firstPollDone = sample.value(u"firstPollDone"_s).toBool(true);
        picture.feedLive = sample.value(u"feedLive"_s).toBool(true);
        picture.serviceInstalled = sample.value(u"serviceInstalled"_s).toBool(true);
        if (sample.contains(u"serviceNodeGone"_s))
            picture.serviceNodeGone = sample.value(u"serviceNodeGone"_s).toString();
        picture.serviceUpdate = sample.value(u"serviceUpdate"_s).toBool();
        if (const QJsonObject repairing = sample.value(u"repairing"_s).toObject(); !repairing.isEmpty())
            picture.repairing = repairProgress(repairing);
        if (sample.contains(u"snapshot"_s))
            picture.snapshot = Snapshot::fromJson(sample.value(u"snapshot"_s));
        // A service that answers has a status, if only an empty one.
        if (picture.firstPollDone && picture.feedLive)
            picture.status = LocalStatus::fromJson(sample.value(u"status"_s).toObject());
        for (const QJsonValue& done : sample.value(u"answered"_s).toArray()) {
            const QJsonObject answer = done.toObject();
            if (const std::optional<Approval> approval = Approval::fromJson(answer.value(u"approval"_s))) {
                picture.answered.insert(approval->id,
                    Answered{*approval, answer.value(u"decision"_s).toString(),
                        QDateTime::fromMSecsSinceEpoch(qint64(answer.value(u"at"_s).toDouble()), Qt::UTC)});
            }
        }
        model.showPicture(picture);
        return true;
    }
    return false;
}

QString samplePage(const QString& name)
{
    for (const QJsonValue& entry : samples()) {
        const QJsonObject sample = entry.toObject();
        if (sample.value(u"name"_s).toString() == name)
            return sample.value(u"page"_s).toString();
    }
    return {};
}

QStringList textTwin(QQuickItem* root)
{
    struct Spoken {
        qreal y;
        qreal x;
        QString text;
    };
    QList<Spoken> lines;
    // `name` is the spoken name of the control the item stands in, if any.
    const std::function<void(QQuickItem*, const QString&)> walk = [&](QQuickItem* item, const QString& name) {
        if (!item->isVisible() || item->opacity() <= 0)
            return;
        const QPointF at = item->mapToScene(QPointF(0, 0));
        // A control speaks its name first; the words drawn inside it follow, but not those that only repeat it.
        const QString spoken = item->property("spoken").toString();
        if (!spoken.isEmpty())
            lines.append({at.y(), at.x(), spoken});
        const QString within = spoken.isEmpty() ? name : spoken;
        if (spoken.isEmpty() && item->inherits("QQuickText")) {
            const QString text = item->property("text").toString().trimmed();
            if (!text.isEmpty() && text != within)
                lines.append({at.y(), at.x(), text});
        }
        for (QQuickItem* child : item->childItems())
            walk(child, within);
    };
    walk(root, QString());
    std::stable_sort(lines.begin(), lines.end(),
        [](const Spoken& a, const Spoken& b) { return qRound(a.y) != qRound(b.y) ? a.y < b.y : a.x < b.x; });
    QStringList twin;
    for (const Spoken& line : lines)
        twin << line.text.split(u'\n', Qt::SkipEmptyParts);
    return twin;
}

std::optional<Rendered> render(AppModel& model, const Clock& clock, QString* error, const QString& page)
{
    DismissedNotices dismissed;
    PopoverModel popover(model, dismissed, clock);
    QQuickView view;
    view.setColor(Qt::transparent);
    view.setInitialProperties({{u"popover"_s, QVariant::fromValue<QObject*>(&popover)},
        {u"currentPage"_s, page.isEmpty() ? u"main"_s : page}});
    view.setSource(QUrl(u"qrc:/qml/MenuPopover.qml"_s));
    if (view.status() != QQuickView::Ready || !view.rootObject()) {
        QStringList reasons;
        for (const QQmlError& problem : view.errors())
            reasons << problem.toString();
        *error = u"The popover’s view didn’t load: "_s + reasons.join(u"; "_s);
        return std::nullopt;
    }
    QQuickItem* root = view.rootObject();
    view.resize(int(root->width()), std::max(60, int(std::ceil(root->height()))));
    view.show();
    waitFor([&view] { return view.isExposed(); }, 2000);
    const QImage image = view.grabWindow();
    if (image.isNull()) {
        *error = u"The popover couldn’t be drawn."_s;
        return std::nullopt;
    }
    return Rendered{image, textTwin(root)};
}

bool save(const Rendered& rendered, const QString& folder, const QString& name, QString* error)
{
    if (!QDir().mkpath(folder)) {
        *error = u"Couldn’t make the folder %1."_s.arg(folder);
        return false;
    }
    const QString png = folder + u'/' + name + u".png"_s;
    if (!rendered.image.save(png)) {
        *error = u"Couldn’t write %1."_s.arg(png);
        return false;
    }
    return writeFile(folder + u'/' + name + u".txt"_s, (rendered.twin.join(u'\n') + u'\n').toUtf8(), error);
}

int renderPopover(const QString& folder, bool live, const QString& page)
{
    QString error;
    if (live) {
        const Environment& environment = Environment::current();
        AppModel model(environment, Clock::system());
        model.start();
        waitFor(
            [&model] { return model.firstPollDone() && (model.snapshot() || !model.serviceUp()) && model.sdkLooked(); },
            20000);
        if (!model.firstPollDone()) {
            say(u"render failed: the service was never read."_s);
            return 1;
        }
        StatusItemController item(
            model, environment, [](const QString&) { return StatusButton::unseen(); }, Clock::system());
        item.install();
        item.sync();
        const std::optional<Rendered> rendered = render(model, Clock::system(), &error, page);
        const QString name = page.isEmpty() ? u"live-popover"_s : u"live-"_s + page;
        if (!rendered || !save(*rendered, folder, name, &error)
            || !writeFile(folder + u"/status-item.txt"_s, statusItemText(item).toUtf8(), &error)) {
            say(u"render failed: "_s + error);
            return 1;
        }
        return 0;
    }
    for (const QString& name : sampleNames()) {
        AppModel model(Environment::current(), Clock::system(), {}, true);
        showSample(model, name, Clock::system().now());
        const std::optional<Rendered> rendered = render(model, Clock::system(), &error, samplePage(name));
        if (!rendered || !save(*rendered, folder, name, &error)) {
            say(u"render failed: "_s + name + u": "_s + error);
            return 1;
        }
    }
    return 0;
}

int renderSnapshots(const QString& folder)
{
    const QString frames = folder + u"/frames"_s;
    if (!QDir().mkpath(frames)) {
        say(u"render failed: couldn’t make the folder "_s + frames);
        return 1;
    }
    for (const MenuBarFrames::Frame& frame : MenuBarFrames::all()) {
        const MenuBarFrames::Image& image = MenuBarFrames::shared().image(frame);
        if (!image.normal.save(frames + u'/' + frame.name() + u".png"_s)
            || !image.retina.save(frames + u'/' + frame.name() + u"@2x.png"_s)) {
            say(u"render failed: couldn’t write the frame "_s + frame.name());
            return 1;
        }
    }
    return renderPopover(folder + u"/popover"_s, false);
}

} // namespace PopoverRender

#pragma once

#include <QObject>
#include <QThread>

#include <functional>
#include <memory>

/// Runs `work` on a thread of its own and hands its result to `then` on
/// `context`'s thread, only while `context` lives.
template <class Result>
void offMainThread(QObject* context, std::function<Result()> work, std::function<void(Result)> then)
{
    auto result = std::make_shared<Result>();
    // The thread owns no part of the context; it shares only the result.
    QThread* thread = QThread::create([work = std::move(work), result] { *result = work(); });
    QObject::connect(
        thread, &QThread::finished, context, [result, then = std::move(then)] { then(std::move(*result)); });
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start();
}

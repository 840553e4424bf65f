#pragma once

#include "link/ServiceCalls.h"

#include <functional>
#include <optional>

/// The road of every action: posts a call and routes its reply, or its
/// failure to the note line. Replies arrive only while the client lives.
class ActionCalls
{
public:
    using Notes = std::function<void(const QString&)>;

    ActionCalls(DaemonClient& client, Notes notes);

    /// On failure the note is `opening` and the error's sentence; without an
    /// opening the failure passes in silence.
    template <class T>
    void run(const ServiceCall<T>& call, std::optional<QString> opening, std::function<void(T)> onSuccess);
    /// The same with a failure handler of the caller's own.
    template <class T>
    void runWith(const ServiceCall<T>& call, std::function<void(T)> onSuccess,
        std::function<void(const DaemonError&)> onFailure);

private:
    DaemonClient& m_client;
    Notes m_notes;
};

template <class T>
void ActionCalls::runWith(
    const ServiceCall<T>& call, std::function<void(T)> onSuccess, std::function<void(const DaemonError&)> onFailure)
{
    call.send(m_client, [onSuccess = std::move(onSuccess), onFailure = std::move(onFailure)](DaemonResult<T> result) {
        if (!result.ok()) {
            if (onFailure)
                onFailure(result.error());
            return;
        }
        if (onSuccess)
            onSuccess(std::move(result.value()));
    });
}

template <class T>
void ActionCalls::run(const ServiceCall<T>& call, std::optional<QString> opening, std::function<void(T)> onSuccess)
{
    runWith<T>(call, std::move(onSuccess), [notes = m_notes, opening = std::move(opening)](const DaemonError& error) {
        if (opening)
            notes(*opening + error.errorDescription());
    });
}

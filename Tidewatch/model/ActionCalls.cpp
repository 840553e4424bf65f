#include "model/ActionCalls.h"

ActionCalls::ActionCalls(DaemonClient& client, Notes notes)
    : m_client(client)
    , m_notes(std::move(notes))
{
}

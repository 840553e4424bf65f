#pragma once

/// The steps of Setup, in their order.
enum class SetupStep { Claude, Service, Connect, Tailscale, Voice, Codex, Phone };

#pragma once

/// Answers the multicast queries by which client apps find this server, for the life of the
/// process. Returns 1 when its socket cannot be set up, otherwise never. Thread: discovery.
int multiHost();

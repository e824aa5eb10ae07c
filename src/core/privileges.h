// From root to the daemon's own user.
#pragma once

/// Becomes user and group `wxd`. A step that fails is told on standard error and ends the attempt;
/// the daemon goes on with the identity it has by then.
void drop_privileges();

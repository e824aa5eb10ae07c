// From root to the daemon's own user.
#pragma once

/// Empties the set of capabilities that programs inherit, which a careless starter may have filled:
/// the change of user empties every other set, and this one never. A thread has its own sets, so
/// this is for the start of the process, before there is a second one.
void drop_inheritable_capabilities();

/// Becomes user and group `wxd`. A step that fails is told on standard error and ends the attempt;
/// the daemon goes on with the identity it has by then.
void drop_privileges();

// What the allocator keeps of memory that was needed only once.
#pragma once

/// Has all threads take their memory from one place, which can be given back: those of sequences
/// need little, and one after the other. To be called before there are any.
void memory_share_one_arena();

/// Gives unused memory back to the system in a moment, from the main loop, once what is under way
/// has let go of its own. Any thread; calls in the meantime are served by the same turn.
void memory_give_back_soon();

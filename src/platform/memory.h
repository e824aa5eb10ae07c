// What the allocator keeps of memory that was needed only once.
#pragma once

/// Gives unused memory back to the system in a moment, from the main loop, once what is under way
/// has let go of its own. Any thread; calls in the meantime are served by the same turn.
void memory_give_back_soon();

// made_by_new.h - tells memory of operator new from memory of malloc, also that of a port's library.
#pragma once

/// True for memory of operator new or new[] that is not freed yet.
bool madeByNew(const void* memory);

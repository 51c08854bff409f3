// made_by_new.h - tells memory of new from memory of malloc, also when a port's library has made it.
#pragma once

/// True for memory that operator new or new[] has handed out and nobody has given back.
bool madeByNew(const void* memory);

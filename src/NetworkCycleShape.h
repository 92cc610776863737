// The cycle's view of what it built: the shape it wants held, and what the
// kernel shows of it after someone else's change.
#pragma once

#include <initializer_list>

#include "src/NetworkCycle.h"
#include "src/NetworkShape.h"

// What the passes so far have put in place and expect to find again; nothing
// before a usable pass has built br0.
WANTED_SHAPE WantedShape(const CYCLE_STATE& state);

// After work that put `works` in place: what of it the kernel does not show
// now was never held, and is no outside change later.
void NoteShapeHeld(CYCLE_STATE& state, std::initializer_list<SHAPE_REPAIR> works);

// Reads the kernel's links, addresses and routes and compares them with
// WantedShape. What someone else undid gets one WARN per piece of work that
// puts it back, and that work is made due (NoteWorkUndone). True when anything
// was found: the next pass is wanted now.
bool CheckForOutsideChanges(CYCLE_STATE& state);

// The small repairs due (a link set up again, a port put back into br0, a MAC
// address set back), one step table an interface; each kind's health records
// the attempt. Nothing while a bridge build is pending: it puts back all.
void RepairSmallChanges(CYCLE_STATE& state);

// Counts what a program takes from the heap through new.
#pragma once

// Allocations of the whole program since its start.
unsigned long GetAllocationCount();

// Heap allocations made through operator new by this process so far.
#pragma once

long allocations();

// Included in front of every file of the service in the fuzz builds: its variables lie in sections of their own, so
// that they can be put back between two inputs, all of them, whoever declares them.
#pragma once
#pragma clang section bss = "voq_bss" data = "voq_data"

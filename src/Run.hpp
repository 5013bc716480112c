#pragma once

/// The whole program: one conversion per call. Returns the exit status.
int run_vundrel(int argc, char** argv);

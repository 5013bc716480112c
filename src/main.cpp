#include "Run.hpp"

int main(int argc, char** argv) {
    return run_vundrel(argc, argv);
}

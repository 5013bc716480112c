#include "Run.hpp"
#include "RunResources.hpp"

int main(int argc, char** argv) {
    keepFreedMemory();
    return run_vundrel(argc, argv);
}

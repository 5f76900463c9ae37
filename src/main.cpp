#include <cstdio>

#include "SolApp.h"

int main(int argc, char** argv) {
    // Every printed line reaches its reader, also when the daemon ends with _exit.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    solicd::SolApp::Data data;
    solicd::SolApp::Logic::run(argc, argv, data);
}

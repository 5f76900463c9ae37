#include <cstdio>
#include <cstdlib>

#include "SolApp.h"
#include "TraceLog.h"

int main(int argc, char** argv) {
    // Every printed line reaches its reader, also when the daemon ends with _exit.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // Before anything can fail: the operator sees why a start failed without a tracing session.
    solicd::trace::mirrorToStderrFrom(std::getenv(solicd::trace::kStderrMirrorVariable));
    solicd::SolApp::Data data;
    solicd::SolApp::Logic::run(argc, argv, data);
}

// tavikd: the client agent daemon. Starts, detaches and serves for ever.
#include "daemon/listener.h"
#include "daemon/startup.h"

int main(int argc, char* argv[]) {
    tavik::startDaemon(argc, argv);
    tavik::serveForever();
}

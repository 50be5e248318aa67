#include "protocol/log.h"

std::atomic<ILog*> logger{nullptr};
std::mutex ll;

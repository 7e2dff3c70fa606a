#include "events/SharingServiceDispatcher.h"

namespace {

std::shared_ptr<SharingServiceDispatcher>& current()
{
    static std::shared_ptr<SharingServiceDispatcher> dispatcher;
    return dispatcher;
}

} // namespace

std::shared_ptr<SharingServiceDispatcher> SharingServiceDispatcher::installed()
{
    return current();
}

void SharingServiceDispatcher::install(std::shared_ptr<SharingServiceDispatcher> dispatcher)
{
    current() = std::move(dispatcher);
}

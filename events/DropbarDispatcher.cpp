#include "events/DropbarDispatcher.h"

namespace {

std::shared_ptr<DropbarDispatcher>& current()
{
    static std::shared_ptr<DropbarDispatcher> dispatcher;
    return dispatcher;
}

} // namespace

DropbarDispatcher* DropbarDispatcher::installed()
{
    return current().get();
}

void DropbarDispatcher::install(std::shared_ptr<DropbarDispatcher> dispatcher)
{
    current() = std::move(dispatcher);
}

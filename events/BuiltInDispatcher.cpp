#include "events/BuiltInDispatcher.h"

namespace {

std::shared_ptr<BuiltInDispatcher>& current()
{
    static std::shared_ptr<BuiltInDispatcher> dispatcher;
    return dispatcher;
}

} // namespace

BuiltInDispatcher* BuiltInDispatcher::installed()
{
    return current().get();
}

void BuiltInDispatcher::install(std::shared_ptr<BuiltInDispatcher> dispatcher)
{
    current() = std::move(dispatcher);
}

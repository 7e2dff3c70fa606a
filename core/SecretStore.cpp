#include "core/SecretStore.h"

namespace {

std::shared_ptr<SecretStore>& current()
{
    static std::shared_ptr<SecretStore> store;
    return store;
}

} // namespace

SecretStore& SecretStore::shared()
{
    Q_ASSERT(current());
    return *current();
}

std::shared_ptr<SecretStore> SecretStore::sharedPointer()
{
    return current();
}

void SecretStore::setShared(std::shared_ptr<SecretStore> store)
{
    current() = std::move(store);
}

#include "store/SecretStore.h"

#include "platform/FileSecretStore.h"

namespace {

std::shared_ptr<SecretStore>& current()
{
    static std::shared_ptr<SecretStore> store = std::make_shared<FileSecretStore>();
    return store;
}

} // namespace

SecretStore& SecretStore::shared()
{
    return *current();
}

std::shared_ptr<SecretStore> SecretStore::sharedPointer()
{
    return current();
}

void SecretStore::setShared(std::shared_ptr<SecretStore> store)
{
    current() = store ? std::move(store) : std::make_shared<FileSecretStore>();
}

#include "store/GridStoreHooks.h"

#include <QCoreApplication>
#include <QTimer>

namespace GridStore {

void runOnNextTurn(std::function<void()> step)
{
    if (!step) {
        return;
    }
    if (QCoreApplication* application = QCoreApplication::instance()) {
        QTimer::singleShot(0, application, std::move(step));
        return;
    }
    step();
}

} // namespace GridStore

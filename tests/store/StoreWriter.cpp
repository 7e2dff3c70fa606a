// A separate process that changes a grid database and reports each change once it is
// committed, for the tests that kill it at random points.
//
//   store_writer changes DB TAG COUNT   makes COUNT changes, printing "begin ..." before and
//                                       "commit ..." after each one; exits 1 on a failure
//   store_writer migrate DB VERSION     loads DB and stops for good before the migration
//                                       step to VERSION, after printing "step VERSION"
#include "app/Engine.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"

#include <QCoreApplication>
#include <QRandomGenerator>

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

void say(const QString& line)
{
    std::fputs((line + QLatin1Char('\n')).toUtf8().constData(), stdout);
    std::fflush(stdout);
}

int changes(GridDatabase& db, const QString& tag, int count)
{
    const GridId grid = db.addGridWithName(QStringLiteral("grid-%1").arg(tag));
    const CategoryId category = db.addCategoryWithName(QStringLiteral("cat-%1").arg(tag), grid);
    const DropbarId dropbar =
        db.addDropbarWithTitle(QStringLiteral("bar-%1").arg(tag), {}, false, grid);
    if (grid == 0 || category == 0 || dropbar == 0) {
        return 1;
    }
    say(QStringLiteral("commit grid %1 %2 %3 %4").arg(grid).arg(category).arg(dropbar).arg(tag));
    QList<ActionId> actions;
    QList<DropbarItemId> items;
    QRandomGenerator random(static_cast<quint32>(qHash(tag)));
    for (int i = 0; i < count; ++i) {
        const int kind = random.bounded(10);
        if (kind < 5 || actions.size() < 2) {
            GridAction action;
            action.name = QStringLiteral("action-%1-%2").arg(tag).arg(i);
            action.type = QStringLiteral("Move Files");
            action.categoryId = category;
            action.position = i;
            say(QStringLiteral("begin action %1").arg(action.name));
            const ActionId id =
                db.addAction(action, {{QStringLiteral("n"), QString::number(i)},
                                      {QStringLiteral("b"), QByteArray(64, char(i))}});
            if (id == 0) {
                return 1;
            }
            actions << id;
            say(QStringLiteral("commit action %1 %2 %3").arg(id).arg(action.name).arg(i));
        } else if (kind < 7) {
            const ActionId id = actions.takeAt(random.bounded(actions.size()));
            say(QStringLiteral("begin delete %1").arg(id));
            if (!db.deleteAction(id)) {
                return 1;
            }
            say(QStringLiteral("commit delete %1").arg(id));
        } else if (kind < 9 || items.size() < 2) {
            // Separating keeps one item behind: an emptied source Drop Bar is deleted.
            const QString text = QStringLiteral("item-%1-%2").arg(tag).arg(i);
            say(QStringLiteral("begin item %1").arg(text));
            const DropbarItemId id =
                db.addItemToDropbar(dropbar, QStringLiteral("text"), {}, text, {});
            if (id == 0) {
                return 1;
            }
            items << id;
            say(QStringLiteral("commit item %1 %2 %3").arg(id).arg(dropbar).arg(text));
        } else {
            const DropbarItemId item = items.takeAt(random.bounded(items.size()));
            say(QStringLiteral("begin separate %1").arg(item));
            const DropbarId made =
                db.separateItem(item, dropbar, grid, QStringLiteral("split"), {});
            if (made == 0) {
                return 1;
            }
            say(QStringLiteral("commit separate %1 %2").arg(item).arg(made));
        }
    }
    say(QStringLiteral("done"));
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList args = application.arguments();
    if (args.size() < 4) {
        std::fputs("usage: store_writer changes DB TAG COUNT | migrate DB VERSION\n", stderr);
        return 2;
    }
    Engine engine;
    GridDatabase db(args.at(2), QString());
    db.setContext(&engine.storeContext);
    if (args.at(1) == QLatin1String("migrate")) {
        const int stopAt = args.at(3).toInt();
        db.setMigrationStepObserver([stopAt](int toVersion) {
            if (toVersion == stopAt) {
                say(QStringLiteral("step %1").arg(toVersion));
                for (;;) {
                    std::this_thread::sleep_for(std::chrono::seconds(1));
                }
            }
        });
        return db.loadDatabase() ? 0 : 1;
    }
    if (args.size() < 5 || !db.loadDatabase()) {
        return 2;
    }
    return changes(db, args.at(3), args.at(4).toInt());
}

// The zip step's side of bench/zip_bench.py, which times it against `zip -r`:
//   zip_bench ARCHIVE SOURCE...
// writes ARCHIVE from SOURCE... and prints "ms BYTES" (time spent, archive size).
#include "platform/ZipWriter.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QString>
#include <QStringList>

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: zip_bench ARCHIVE SOURCE...\n");
        return 2;
    }
    QStringList sources;
    for (int i = 2; i < argc; ++i)
        sources << QFileInfo(QString::fromLocal8Bit(argv[i])).absoluteFilePath();
    const QString archive = QString::fromLocal8Bit(argv[1]);
    QElapsedTimer timer;
    timer.start();
    const ZipWriter::Result result = ZipWriter::write(archive, sources);
    const qint64 elapsed = timer.elapsed();
    if (!result.ok) {
        std::fprintf(stderr, "zip_bench: %s\n", qPrintable(result.error));
        return 1;
    }
    std::printf("%lld %lld\n", static_cast<long long>(elapsed),
                static_cast<long long>(QFileInfo(archive).size()));
    return 0;
}

#include "tests/support/HttpTestServer.h"

#include <QDeadlineTimer>
#include <QFile>

HttpTestServer::HttpTestServer(QString root)
    : m_root(std::move(root))
{}

HttpTestServer::~HttpTestServer()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(10000);
    }
}

bool HttpTestServer::start()
{
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral("python3"),
                    {QStringLiteral(SKELVO_TEST_SUPPORT_DIR "/http_test_server.py"), m_root,
                     m_logDir.filePath(QStringLiteral("requests.log"))});
    QDeadlineTimer deadline(20000);
    while (!m_process.canReadLine()) {
        if (deadline.hasExpired() || m_process.state() == QProcess::NotRunning) {
            return false;
        }
        m_process.waitForReadyRead(static_cast<int>(deadline.remainingTime()));
    }
    bool ok = false;
    m_port = static_cast<quint16>(m_process.readLine().trimmed().toUInt(&ok));
    return ok && m_port != 0;
}

QString HttpTestServer::url(const QString& path) const
{
    return QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path);
}

QStringList HttpTestServer::requests() const
{
    QFile log(m_logDir.filePath(QStringLiteral("requests.log")));
    if (!log.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromUtf8(log.readAll()).split(u'\n', Qt::SkipEmptyParts);
}

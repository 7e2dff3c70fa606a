#include "builtin/ImageAction.h"

#include "builtin/BuiltInActionTaskBridge.h"
#include "core/SupportPaths.h"
#include "core/WindowPresenter.h"
#include "tasks/DropbarSink.h"
#include "tasks/FolderMonitorContext.h"
#include "tasks/TaskContext.h"

#include <QDir>
#include <QPointer>
#include <QStandardPaths>

ImageAction::ImageAction(ImageProcessing::Mode mode)
    : m_mode(mode)
{}

ImageAction::~ImageAction()
{
    m_cancel->store(true);
    if (m_worker) {
        // The run stops after the images in progress; the instance must not go before it.
        m_worker->wait();
        delete m_worker;
    }
}

void ImageAction::runWithDraggedUrls(const QList<QUrl>& urls)
{
    QStringList paths;
    for (const QUrl& url : urls) {
        if (url.isLocalFile()) {
            paths << url.toLocalFile();
        }
    }
    m_images = ImageProcessing::collectImages(paths);
    if (m_images.isEmpty()) {
        failWithMessage(QStringLiteral("No images found"));
        return;
    }
    const QString choice = variable(QStringLiteral("output_folder_option"));
    if (choice.isEmpty() || choice == u"0") {
        process(QString());
        return;
    }
    if (choice == u"2" && !variable(GridAction::PathVariable).isEmpty()) {
        process(variable(GridAction::PathVariable));
        return;
    }
    if (choice == u"3") {
        const QString folder = SupportPaths::uniqueActionOutputDirectory();
        if (folder.isEmpty() || !QDir(folder).exists()) {
            failWithMessage(QStringLiteral("Could not create output directory"));
            return;
        }
        m_addToDropBar = true;
        process(folder);
        return;
    }
    QPointer<ImageAction> self = this;
    tasks().windows.chooseFolder(
        QStringLiteral("Choose output folder"),
        QStringLiteral("Choose an output folder for the converted image"),
        QStandardPaths::writableLocation(QStandardPaths::DesktopLocation),
        [self](const QString& folder) {
            if (!self) {
                return;
            }
            if (folder.isEmpty()) {
                self->failWithMessage(QStringLiteral("You must choose a destination folder"));
                return;
            }
            self->process(folder);
        });
}

void ImageAction::process(const QString& outputFolder)
{
    QMap<QString, QString> variables;
    if (const GridActionPtr action = gridAction()) {
        for (auto it = action->extraVariables.cbegin(); it != action->extraVariables.cend(); ++it) {
            variables.insert(it.key(), it.value().toString());
        }
    }
    ImageProcessing::Options options = ImageProcessing::optionsFromVariables(variables, m_mode);
    options.outputFolder = outputFolder;

    BuiltInActionTaskBridge* bridge = builtInActionTaskBridge();
    bridge->beginProgress(true);
    const QString verb = m_mode == ImageProcessing::Mode::Resize ? QStringLiteral("Resizing ")
                                                                 : QStringLiteral("Converting ");
    const int total = static_cast<int>(m_images.size());
    bridge->setStatusText(verb + (total == 1 ? QDir(m_images.first()).dirName()
                                             : QStringLiteral("%1 images").arg(total)));

    QPointer<ImageAction> self = this;
    ImageProcessing::Callbacks callbacks;
    // Registered as each image is written: the monitor must know its outputs before they
    // could settle in a watched folder.
    callbacks.finished = [self, monitor = folderMonitorContext](
                             int done, int count, const ImageProcessing::ImageOutcome& outcome) {
        if (monitor && outcome.ok()) {
            monitor->registerOutputAtPath(outcome.output);
        }
        QMetaObject::invokeMethod(
            self.data(),
            [self, done, count] {
                if (self) {
                    self->builtInActionTaskBridge()->setProgress(done * 100 / qMax(1, count));
                }
            },
            Qt::QueuedConnection);
    };
    const QStringList images = m_images;
    const std::shared_ptr<std::atomic<bool>> cancel = m_cancel;
    // This thread hands the images to a pool of one worker per core and names, trashes and
    // reports them in drop order.
    m_worker = QThread::create([self, images, options, callbacks, cancel] {
        const ImageProcessing::RunResult result =
            ImageProcessing::processImages(images, options, callbacks, cancel.get());
        QMetaObject::invokeMethod(
            self.data(),
            [self, result] {
                if (self) {
                    self->processed(result);
                }
            },
            Qt::QueuedConnection);
    });
    m_worker->setObjectName(QStringLiteral("resize-images-queue"));
    m_worker->start();
}

void ImageAction::processed(const ImageProcessing::RunResult& result)
{
    if (!result.error.isEmpty()) {
        failWithMessage(result.error);
        return;
    }
    if (m_addToDropBar && !result.written.isEmpty()) {
        tasks().dropbarSink.addFilePaths(result.written);
    }
    if (result.written.isEmpty()) {
        failWithMessage(result.cancelled ? QStringLiteral("Cancelled")
                                         : QStringLiteral("No images could be processed:\n") +
                                               result.failed.join(u'\n'));
        return;
    }
    playFinishedSoundIfWanted();
    QString message = m_mode == ImageProcessing::Mode::Resize
                          ? QStringLiteral("Resize Successful")
                          : QStringLiteral("Conversion Successful");
    if (!result.failed.isEmpty()) {
        message += QStringLiteral("\nSkipped:\n") + result.failed.join(u'\n');
    }
    succeedWithMessage(message);
}

void ImageAction::cancel()
{
    m_cancel->store(true);
}

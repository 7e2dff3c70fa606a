#pragma once

#include "builtin/BuiltInAction.h"
#include "builtin/images/ImageProcessor.h"

#include <QThread>

#include <atomic>
#include <memory>

// What "Resize Images" and "Convert Images" share: choosing the output folder, running the
// image engine off the main thread with progress on the row, and reporting the outcome.
class ImageAction : public BuiltInAction {
    Q_OBJECT
public:
    ~ImageAction() override;

    void runWithDraggedUrls(const QList<QUrl>& urls) override;
    void cancel() override;

protected:
    explicit ImageAction(ImageProcessing::Mode mode);

private:
    void process(const QString& outputFolder);
    void processed(const ImageProcessing::RunResult& result);

    ImageProcessing::Mode m_mode;
    QStringList m_images;
    bool m_addToDropBar = false;
    // Shared with the run, which may outlive a cancelled instance by the images in progress.
    std::shared_ptr<std::atomic<bool>> m_cancel = std::make_shared<std::atomic<bool>>(false);
    QThread* m_worker = nullptr;
};

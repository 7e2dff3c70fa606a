#pragma once

#include <QList>
#include <QMap>
#include <QSize>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>

// The image engine behind "Resize Images" and "Convert Images": collecting the dropped
// images, the target-size rules, output naming, encoding with libvips and moving the
// originals to the Trash. It knows nothing of tasks or presenters, so the built-in actions
// run it on their own queue and report through the callbacks.
namespace ImageProcessing {

enum class Mode {
    Resize,  // "Resize Images": a name collision takes "-resized"
    Convert, // "Convert Images": pixel size kept, a collision takes "-converted"
};

struct Options {
    Mode mode = Mode::Resize;
    // Maximum output size in pixels; a value of 0 or less means no limit.
    double maxWidth = 0;
    double maxHeight = 0;
    // Keeps the pixel size even in Resize mode.
    bool convertOnly = false;
    // 0-100; used for JPG and WEBP only.
    double quality = 100;
    // Output extension as given ("jpg", "webp", "tiff", ...); empty keeps each input's type.
    QString format;
    // The resolved output folder; empty writes each output next to its original.
    QString outputFolder;
    // When false, each original goes to the Trash once its output has been written.
    bool keepOriginals = false;
};

// Reads the action variables (all values text): output_width, output_height,
// output_quality, output_format, keep_originals, convert_only. The output folder is the
// caller's to resolve from output_folder_option and path. A boolean is false when missing,
// empty, "no", "false", "off" or "0" (any case) and true otherwise.
Options optionsFromVariables(const QMap<QString, QString>& variables, Mode mode);

// Lower-case extensions accepted as input (and as output_format).
QStringList allowedImageFileExtensions();
bool isSupportedFormat(const QString& extension);

// Dropped paths with folders expanded to their regular files (sorted by name, not
// recursive); only files with an allowed extension are kept, in the order given.
QStringList collectImages(const QStringList& droppedPaths);

// The output size for an image of `source` pixels. Only limits greater than 0 count; with
// neither, or with keepSize, the size is kept. Rounding is to nearest, halves away from
// zero, and never below 1 pixel.
QSize targetSize(QSize source, double maxWidth, double maxHeight, bool keepSize = false);

// The first free name for the output of `inputPath`: "<base>.<ext>", then
// "<base>-resized.<ext>" (or "-converted"), then "<base>-resized-2.<ext>", -3, ...
QString outputPathFor(const QString& inputPath, const QString& outputFolder,
                      const QString& extension, Mode mode);

struct ImageOutcome {
    QString input;
    QString output;       // empty when the image was skipped
    QString error;        // why the image was skipped
    QSize size;           // size written
    bool trashed = false; // the original is in the Trash
    QString trashError;   // the output was written but the original could not be trashed
    bool ok() const { return !output.isEmpty(); }
};

struct RunResult {
    QList<ImageOutcome> images; // one per processed image, in order
    QStringList written;        // outputs, in order
    QStringList failed;         // inputs that were skipped
    bool cancelled = false;     // stopped before the last image
    QString error;              // set when nothing could be attempted (bad options)
};

// Both are called on the thread that runs processImages, in the order of the inputs.
struct Callbacks {
    // When an image is handed to a worker; index is 0-based.
    std::function<void(int index, int total, const QString& input)> started;
    // After an image is done or skipped; done counts finished images.
    std::function<void(int done, int total, const ImageOutcome& outcome)> finished;
};

// Converts one image. Never throws; failures come back in the outcome.
ImageOutcome processImage(const QString& inputPath, const Options& options);

// Processes the images on a pool of `workers` threads (0: one per core, 1: one at a time),
// never more images at once than workers. Outputs are named, originals trashed and results
// reported in the order of the inputs, so names and results are those of a run one image
// after the other. `cancel` is checked before each image is handed out: a cancel takes no
// further image, ends once the images in progress are written, and what was written stays.
RunResult processImages(const QStringList& inputPaths, const Options& options,
                        const Callbacks& callbacks = {}, const std::atomic<bool>* cancel = nullptr,
                        int workers = 0);

// Starts libvips once per process; safe from any thread. False (with the reason) when
// libvips could not start.
bool ensureInitialised(QString* error = nullptr);

} // namespace ImageProcessing

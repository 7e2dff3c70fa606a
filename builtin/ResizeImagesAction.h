#pragma once

#include "builtin/ImageAction.h"

// "Resize Images": dropped images made to fit the configured width and height.
class ResizeImagesAction : public ImageAction {
    Q_OBJECT
public:
    ResizeImagesAction()
        : ImageAction(ImageProcessing::Mode::Resize)
    {}
};

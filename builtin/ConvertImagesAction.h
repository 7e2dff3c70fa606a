#pragma once

#include "builtin/ImageAction.h"

// "Convert Images": dropped images written in another format at their own size.
class ConvertImagesAction : public ImageAction {
    Q_OBJECT
public:
    ConvertImagesAction()
        : ImageAction(ImageProcessing::Mode::Convert)
    {}
};

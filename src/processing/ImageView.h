/// \file
/// One image of any of the library's containers, to look at.
#pragma once

#include "VoxCore/DataModel/VoxImageList.h"
#include "VoxCore/DataModel/VoxImageListStorageSliced.h"

/// width x height pixels that somebody else owns, x fastest, without gaps between the rows. Positions are in
/// pixels, x to the right and y down the file; whole numbers are the middles of pixels, (0, 0) that of the
/// first one.
template <typename T>
struct ImageView {
    const T* pixels = nullptr;
    int width = 0;
    int height = 0;

    bool empty() const { return !pixels || width < 1 || height < 1; }

    /// An image of a list; empty when there is none of that number.
    static ImageView of(const VoxImageList<T>& images, int image) {
        if (image < 0 || image >= images.getImageCount() || !images.getData()) return {};
        const auto area = static_cast<std::int64_t>(images.getImageWidth()) * images.getImageHeight();
        return {images.getData() + image * area, images.getImageWidth(), images.getImageHeight()};
    }
    static ImageView of(const VoxImageListStorageSliced<T>& images, int image) {
        return {images.getImage(image), images.getImageWidth(), images.getImageHeight()};
    }
};

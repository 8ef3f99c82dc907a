// Pictures that scenes are rendered from: photos from files, or procedural ones where there are none. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace noxel::scenes {

// Luminance in 8-bit levels as a continuous function: Catmull-Rom interpolation, mirrored at the edges.
struct Photo {
  int width = 0;
  int height = 0;
  std::vector<float> luma;

  double at(double x, double y) const;
};

// Reads binary PGM or PPM with 8 bits per sample. False, and `photo` untouched: no such file or another format.
bool readPhoto(const std::string& path, Photo* photo);

// A substitute for photos: opaque discs and polygons of all sizes, small ones most frequent, plus value noise; its
// spectrum falls off roughly like that of photos.
Photo proceduralPhoto(int width, int height, uint64_t seed);

struct NamedPhoto {
  std::string name;
  Photo photo;
};

// The photos in these files; without files, `standIns` procedural ones for width x height frames. False: *unreadable is
// not a photo.
bool loadPhotos(const std::vector<std::string>& paths, int standIns, int width, int height, uint64_t seed,
                std::vector<NamedPhoto>* photos, std::string* unreadable);

}  // namespace noxel::scenes

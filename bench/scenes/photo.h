// Pictures that scenes are rendered from: photos from files, or procedural ones where there are none. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace noxel::scenes {

// Luminance in 8-bit levels, a continuous function of the plane: Catmull-Rom between the pixels, mirrored beyond the edges.
struct Photo {
  int width = 0;
  int height = 0;
  std::vector<float> luma;

  double at(double x, double y) const;
};

// Binary PGM or PPM with 8 bits a sample. False, and nothing in `photo`: no such file, or not one.
bool readPhoto(const std::string& path, Photo* photo);

// A stand-in where there are no photos: opaque discs and polygons of all sizes, the small ones most frequent, under value
// noise; its spectrum falls off about as that of photos does.
Photo proceduralPhoto(int width, int height, uint64_t seed);

struct NamedPhoto {
  std::string name;
  Photo photo;
};

// The photos in these files, or without any `standIns` procedural ones for frames of width x height. False, and the file
// in *unreadable: one is not a photo.
bool loadPhotos(const std::vector<std::string>& paths, int standIns, int width, int height, uint64_t seed,
                std::vector<NamedPhoto>* photos, std::string* unreadable);

}  // namespace noxel::scenes

#include "picture.hpp"

namespace olhdr {

Picture loadPicture(const std::string& path, bool verbose) {
    Picture p;
    p.kind = sniff(path);
    if (p.kind == FileKind::Radiance) {
        const RadianceFile info = readRadianceHeader(path, verbose);
        p.width = info.width;
        p.height = info.height;
        p.rgbe = readRadiancePixels(path, info, verbose);
        return p;
    }
    Frame f = loadFrame(path, verbose);  // refuses missing files and folders by name
    p.kind = f.kind;
    p.width = f.image.width;
    p.height = f.image.height;
    p.photo = std::move(f.image);
    p.meta = std::move(f.meta);
    return p;
}

std::string pictureText(const Picture& p) {
    const std::string size = std::to_string(p.width) + "x" + std::to_string(p.height);
    if (p.radiance()) return size + " Radiance picture";
    return size + " " + std::to_string(p.photo.bps) + "-bit " + kindName(p.kind);
}

}  // namespace olhdr

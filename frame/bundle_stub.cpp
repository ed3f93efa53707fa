// Placeholder translation unit so that the bundle library builds before the catalogue lands.

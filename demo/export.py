def export(wiki, folder, progress): return 0, ""

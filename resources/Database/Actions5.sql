-- The initial grid database: the complete current schema (version 11), one grid and its
-- first categories. The build turns this file into Actions5.skdb. Its user_version stays 0:
-- on first use the program stamps it with the current version without migrating.
BEGIN;

CREATE TABLE grids (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    name TEXT,
    display_order INTEGER DEFAULT 0,
    grid_size REAL DEFAULT 70.0,
    num_cols INTEGER DEFAULT NULL,
    special_actions_visible INTEGER DEFAULT 1,
    grid_switcher_visible INTEGER DEFAULT 1
);

CREATE TABLE categories (
    id INTEGER PRIMARY KEY,
    name TEXT,
    grid_id INTEGER REFERENCES grids(id),
    display_order INTEGER DEFAULT 0
);

CREATE TABLE actions (
    id INTEGER PRIMARY KEY,
    name TEXT,
    services_key TEXT,
    type TEXT,
    position INTEGER,
    category_id INTEGER,
    bundled_icon TEXT,
    using_default_icon INTEGER
);

CREATE TABLE action_variables (
    action_id INTEGER,
    variable_name TEXT,
    variable_value TEXT,
    variable_value_blob BLOB
);

CREATE TABLE dropbars (id INTEGER PRIMARY KEY AUTOINCREMENT, grid_id INTEGER REFERENCES grids(id), title TEXT, name TEXT, icon BLOB, locked INTEGER DEFAULT 0, position INTEGER DEFAULT 0);

CREATE TABLE dropbar_items (id INTEGER PRIMARY KEY AUTOINCREMENT, dropbar_id INTEGER REFERENCES dropbars(id), type TEXT, bookmark_data BLOB, text_content TEXT, text_file_path TEXT, position INTEGER DEFAULT 0);

INSERT INTO grids (name, display_order) VALUES ('Main Grid', 0);
INSERT INTO categories (name, grid_id, display_order) VALUES ('Actions', 1, 0);
INSERT INTO categories (name, grid_id, display_order) VALUES ('Apps', 1, 1);
INSERT INTO categories (name, grid_id, display_order) VALUES ('Folders', 1, 2);

COMMIT;

<?php
// Runs one of the database scripts (tests/integration/db) as a page.
require __DIR__ . '/../db/' . basename($_GET['script'] ?? '') . '.php';
